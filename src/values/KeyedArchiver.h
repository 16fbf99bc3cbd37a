#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "values/PropertyList.h"
#include "values/Result.h"
#include "values/Value.h"

namespace zun {

// A keyed archive is a binary property list in which every object stands once:
//
//   {"format": "zunreporting.keyed-archive", "version": 1,
//    "objects": [ ... ],   // the table
//    "top": index of the root}
//
// In the table a number, boolean, string, data or date stands as it is; an array is an
// array of the indices of its elements; a dictionary is {"keys": [...], "values": [...]},
// indices again, in the order of its entries. Equal objects share one place. An object
// comes after all those that it contains, so no archive can contain itself.

inline constexpr std::string_view kKeyedArchiveFormat = "zunreporting.keyed-archive";
inline constexpr int64_t kKeyedArchiveVersion = 1;

/// Containers in each other, at most, in an archive that is written.
inline constexpr size_t kKeyedArchiveDepth = 64;

/// `root` as a keyed archive; none where it nests deeper than kKeyedArchiveDepth, or
/// memory runs out. Any thread.
[[nodiscard]] std::optional<std::string> archiveObject(const Value& root);

/// What was archived. Takes time and memory in proportion to `bytes`, whatever they are:
/// shared objects stay shared, and what they would be when written out is bounded by
/// `limits`. The error is a text for logs. Any thread.
[[nodiscard]] Result<Value, std::string> unarchiveObject(std::string_view bytes,
                                                         const PropertyListLimits& limits = {});

}  // namespace zun
