#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// The parser kit of the library: the one line splitter, header-line skipper, column scanner,
// digits check and number reader. Every parser of tool output (and the settings text) goes
// through these, so \r\n endings, a last line without a newline, empty output and numbers too
// long for any integer are handled in one place. Views point into the caller's text and live as
// long as it does.
namespace hds {
namespace text {

// What separates two columns.
enum class Separator {
  Blank,  // the blank (character 32) only; tabs and newlines are part of a value
  Space,  // every white-space character of the C locale: blank, \t, \n, \v, \f, \r
};

bool isSeparator(char c, Separator sep);

// Some listings are read only up to their last newline; Drop ignores a final piece without one.
enum class LastLine { Keep, Drop };

// Lines cut at '\n', each without its '\n' and without a '\r' just before it. Empty input gives
// no lines; a final newline does not start an empty line.
std::vector<std::string_view> splitLines(std::string_view text, LastLine last = LastLine::Keep);

// The lines of a listing after its header line, cut as splitLines cuts them. Text without a
// newline is all header.
std::vector<std::string_view> dataLines(std::string_view text, LastLine last = LastLine::Keep);

// First position at or after pos that is not a separator (text.size() when none).
size_t skipSeparators(std::string_view text, size_t pos, Separator sep = Separator::Space);
// First separator at or after pos (text.size() when none).
size_t skipValue(std::string_view text, size_t pos, Separator sep = Separator::Space);

// The next column at or after pos; pos moves to the character just after it. Empty, with pos at
// the end, when only separators are left.
std::string_view nextColumn(std::string_view text, size_t& pos, Separator sep = Separator::Space);

std::vector<std::string_view> splitColumns(std::string_view line, Separator sep = Separator::Space);

// Column n, counting from 0; empty when the line has fewer columns.
std::string_view column(std::string_view line, size_t n, Separator sep = Separator::Space);

// The line from the start of column n (counting from 0) to its end: skipColumns(line, 0) drops
// the leading separators only; past the last column the result is empty.
std::string_view skipColumns(std::string_view line, size_t n, Separator sep = Separator::Space);

std::string_view trim(std::string_view text, Separator sep = Separator::Space);

// The same scans over a zero-terminated text, for parsers that walk a character pointer.
const char* skipSeparators(const char* p, Separator sep = Separator::Space);
const char* skipValue(const char* p, Separator sep = Separator::Space);

// The text as one word of a "/bin/sh" command line, so that the program receives exactly it.
// Text made only of letters, digits and _@%+=:,./- passes unchanged (every command text of the
// tools keeps its usual form); anything else, the empty text included, is wrapped in single
// quotes, inside which the shell expands nothing, and each ' is written as '\''.
std::string quoteArgument(std::string_view text);

// True when the text holds a control character (newline, CR, tab, NUL, DEL and the like): such a
// text cannot be written as one value of a line-based file such as a HORCM configuration.
bool hasControlCharacter(std::string_view text);

// True when the text is one or more of the digits 0-9 and nothing else.
bool isDigits(std::string_view text);

// The number at the start of a column as atoi reads it (leading separators, an optional sign,
// digits up to the first other character; 0 when there are none), but listings fed from anywhere
// cannot make it overflow: reading stops before a digit could carry the value out of range.
int64_t toInt64(std::string_view text);
// The same, held to the range of int.
int toInt(std::string_view text);

// For a table listing that gave no rows: true when the tool printed nothing, or its header alone
// (a line whose first column is firstHeading, in any case). Anything else, one line of garbage or
// a message, is output that was not read, and must never pass for "there is none".
bool isEmptyTable(std::string_view output, std::string_view firstHeading);

}  // namespace text
}  // namespace hds
