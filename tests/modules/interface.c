/* The adaptor's interface alone, as an old C compiler sees it. */
#include "zunreporting/kodo_adaptor.h"

typedef char interface_is_complete[sizeof(zun_kodo_class) > sizeof(void*) ? 1 : -1];
