#include <gtest/gtest.h>

#include <string>

#include "frames/tftp_message.h"
#include "frames/words.h"
#include "support/tftp_bytes.h"

namespace {

using frames::in_words;
using frames::printable;
using frames::tftp_message_in;

std::string words(const std::string& datagram) {
  return in_words(tftp_message_in(datagram, datagram.size()));
}

TEST(Words, LeaveLettersAsTheyAre) {
  EXPECT_EQ(printable("kernel.img"), "kernel.img");
  EXPECT_EQ(printable("Prüfling €"), "Prüfling €");
}

TEST(Words, EscapeWhatMovesTheCursor) {
  EXPECT_EQ(printable("\x1b[2J\x07"), "\\x1b[2J\\x07");
  EXPECT_EQ(printable("a\x7f"), "a\\x7f");
  EXPECT_EQ(printable("\xc2\x9b"), "\\xc2\\x9b");
}

TEST(Words, EscapeWhatTurnsOrHides) {
  EXPECT_EQ(printable("\u202e"), "\\xe2\\x80\\xae");
  EXPECT_EQ(printable("\u200b"), "\\xe2\\x80\\x8b");
  EXPECT_EQ(printable("\ufeff"), "\\xef\\xbb\\xbf");
}

TEST(Words, EscapeBytesThatAreNoText) {
  EXPECT_EQ(printable("\xff\xc3("), "\\xff\\xc3(");
  EXPECT_EQ(printable("\xc0\xaf"), "\\xc0\\xaf");                    // too long
  EXPECT_EQ(printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");           // a surrogate
  EXPECT_EQ(printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");  // beyond the last
  EXPECT_EQ(printable("\xe2\x82"), "\\xe2\\x82");                    // cut
}

TEST(Words, GiveEscapedBytesBack) {
  std::string bytes = "\\x5c \\ \\x \\xg0 \xc3\xa4";
  for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
  EXPECT_EQ(frames::unescaped(frames::escaped(bytes)), bytes);
  EXPECT_EQ(frames::escaped("\\x41"), "\\x5cx41");
  for (const char* const text : {"", "\\", "\\x", "\\x4", "\\x-1", "\\xg0", "x41"})
    EXPECT_EQ(frames::unescaped(text), text);
}

TEST(Words, CutWhatIsLongBetweenLetters) {
  std::string text;
  for (int i = 0; i < 400; ++i) text += "ü";
  const std::string shown = printable(text);
  EXPECT_EQ(shown, text.substr(0, 300) + "...");
  EXPECT_EQ(printable("x" + text), "x" + text.substr(0, 300) + "...");
  EXPECT_EQ(printable("x" + text, 200), "x" + text.substr(0, 200) + "...");
  EXPECT_EQ(printable(text.substr(0, 200), 200), text.substr(0, 200));
}

TEST(Words, NameNulAndLineEndsInQuotes) {
  EXPECT_EQ(frames::quoted(std::string("a\r\n\0b", 5)), "\"a\\r\\n\\0b\"");
}

TEST(Words, TellTftp) {
  EXPECT_EQ(words(tftp::rrq("boot.img", {{"blksize", "1428"}})), "read boot.img, blksize 1428");
  EXPECT_EQ(words(tftp::wrq("up.bin", {}, "netascii")), "write up.bin, mode netascii");
  EXPECT_EQ(words(tftp::oack({{"tsize", "5"}})), "OACK, tsize 5");
  EXPECT_EQ(words(tftp::data(1, "abc")), "DATA 1, 3 bytes");
  EXPECT_EQ(words(tftp::ack(65535)), "ACK 65535");
  EXPECT_EQ(words(tftp::error(1, "")), "ERROR 1, no text");
  EXPECT_EQ(words(tftp::error(0, "no")), "ERROR 0, \"no\"");
  EXPECT_EQ(words("hello"), "no TFTP packet, operation 26725");
}

TEST(Words, MarkATextWhoseEndWasNotKept) {
  const auto words_of_cut = [](const std::string& datagram, std::size_t kept) {
    return in_words(tftp_message_in(datagram.substr(0, kept), datagram.size()));
  };
  const std::string request = tftp::rrq("boot.img", {{"blksize", "1428"}});
  EXPECT_EQ(words_of_cut(request, 6), "read boot…, mode ");
  EXPECT_EQ(words_of_cut(request, 13), "read boot.img, mode oc…");
  EXPECT_EQ(words_of_cut(request, 27), "read boot.img, blksize 14…");
  EXPECT_EQ(words_of_cut(request, request.size()), "read boot.img, blksize 1428");
  EXPECT_EQ(words_of_cut(tftp::oack({{"tsize", "5"}}), 5), "OACK, tsi… ");
  EXPECT_EQ(words_of_cut(tftp::error(0, "no room"), 6), "ERROR 0, \"no…\"");
}

TEST(Words, TakeNoNumberThatWasNotKept) {
  using Kind = frames::TftpMessage::Kind;
  for (std::size_t kept = 0; kept < 4; ++kept) {
    const auto message = tftp_message_in(tftp::data(7, "abc").substr(0, kept), 7);
    EXPECT_EQ(message.kind, Kind::kCut) << kept;
    EXPECT_EQ(in_words(message), "a TFTP packet that the capture has cut");
    EXPECT_EQ(tftp_message_in(tftp::ack(7).substr(0, kept), 4).kind, Kind::kCut) << kept;
    EXPECT_EQ(tftp_message_in(tftp::ack(7).substr(0, kept), kept).kind == Kind::kCut, false) << kept;
  }
  EXPECT_EQ(tftp_message_in(tftp::data(7, "abc").substr(0, 4), 7).kind, Kind::kData);
}

TEST(Words, TellTheSizeOfABlockThatWasCut) {
  const std::string block = tftp::data(7, std::string(60, 'x'));
  EXPECT_EQ(in_words(tftp_message_in(block, 1432)), "DATA 7, 1428 bytes");
}

TEST(Words, KnowATextWhoseEndWasNotKept) {
  EXPECT_TRUE(frames::is_cut("boot…"));
  EXPECT_EQ(frames::kept_of("boot…"), "boot");
  EXPECT_TRUE(frames::is_cut("…"));
  EXPECT_EQ(frames::kept_of("…"), "");
  EXPECT_FALSE(frames::is_cut(""));
  EXPECT_FALSE(frames::is_cut("boot"));
  EXPECT_FALSE(frames::is_cut("…boot"));
  EXPECT_FALSE(frames::is_cut("\xa6"));
}

TEST(Words, AreNoMarkupByThemselves) {
  EXPECT_EQ(frames::markup("a<b>&\"c\" 'd'\n"), "a&lt;b&gt;&amp;&quot;c&quot; &#39;d&#39;\n");
  EXPECT_EQ(frames::markup(""), "");
}

TEST(Words, SayBytesInHexadecimal) {
  EXPECT_EQ(frames::hexadecimal({"\x00\x7f\x80\xff", 4}), "007f80ff");
  EXPECT_EQ(frames::hexadecimal("AZ", ":"), "41:5a");
  EXPECT_EQ(frames::hexadecimal("A", ":"), "41");
  EXPECT_EQ(frames::hexadecimal("", ":"), "");
}

TEST(Words, OfASentenceAreAllShown) {
  const std::string name(1000, 'x');
  EXPECT_EQ(frames::printable_sentence("\x1b" + name + ": no"), "\\x1b" + name + ": no");
}

}  // namespace
