// The adaptor's interface alone, as an old C++ compiler sees it.
#include "zunreporting/kodo_adaptor.h"

static_assert(sizeof(zun_kodo_class) > sizeof(void*), "the interface is complete");
