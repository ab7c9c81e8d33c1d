#ifndef FRAMES_WORDS_H
#define FRAMES_WORDS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// What came from the wire, as text that is safe on a page and in a terminal.
namespace frames {

inline constexpr std::size_t kMostBytesOfAName = 300;

// UTF-8 as it is, without what moves a cursor, changes the direction of reading or cannot be seen: such
// characters, and bytes that are no UTF-8, as \xNN. Of more than `most` bytes the beginning, up to the end of a letter, and
// "...".
std::string printable(std::string_view bytes, std::size_t most = kMostBytesOfAName);

// The same of a whole sentence, in which names may stand: nothing is left out.
std::string printable_sentence(std::string_view bytes);

// The same of any bytes, so that they can be told from it: a backslash is \x5c.
std::string escaped(std::string_view bytes);
// What that was made of.
std::string unescaped(std::string_view text);

// As printable, in quotation marks; NUL as \0, line ends as \r and \n.
std::string quoted(std::string_view bytes);

// As text, and in attributes, of HTML, SVG and XML.
std::string markup(std::string_view text);

// Two digits a byte, in lower case; `between` stands between two bytes.
std::string hexadecimal(std::string_view bytes, std::string_view between = {});

// "1 block", "2 blocks".
std::string counted(std::uint64_t count, const std::string& thing);

}  // namespace frames

#endif
