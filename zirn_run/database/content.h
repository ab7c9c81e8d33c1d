#ifndef DATABASE_CONTENT_H
#define DATABASE_CONTENT_H

#include <string>

namespace database {

// What a file is known by, whatever its name: the SHA-256 of its bytes, unpacked where gzip packed it, in hexadecimal.
// Throws std::system_error, or std::runtime_error where what is packed is damaged.
std::string content_of(const std::string& path);

}  // namespace database

#endif
