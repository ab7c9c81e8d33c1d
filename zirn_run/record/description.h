#ifndef RECORD_DESCRIPTION_H
#define RECORD_DESCRIPTION_H

#include <cstddef>
#include <string>
#include <string_view>

namespace record {

inline constexpr std::size_t kDescribedBytes = 64;

// What a file is that is none of those that were expected, by its first kDescribedBytes: "text", "the bytes 7f 45 4c
// 46".
std::string description_of(std::string_view beginning);

}  // namespace record

#endif
