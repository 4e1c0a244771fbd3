#include "hds/common/internal/HDSText.h"

#include <algorithm>
#include <cstdint>

namespace hds {
namespace text {

bool isSeparator(char c, Separator sep) {
  if (sep == Separator::Blank) return c == ' ';
  // Spelled out rather than isspace(): tool output is read as printed in the C locale whatever
  // locale the embedding process has set.
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::vector<std::string_view> splitLines(std::string_view text, LastLine last) {
  std::vector<std::string_view> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t nl = text.find('\n', start);
    if (nl == std::string_view::npos) {
      if (last == LastLine::Drop) break;
      nl = text.size();
    }
    std::string_view line = text.substr(start, nl - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    lines.push_back(line);
    start = nl + 1;
  }
  return lines;
}

std::vector<std::string_view> dataLines(std::string_view text, LastLine last) {
  const size_t headerEnd = text.find('\n');
  if (headerEnd == std::string_view::npos) return {};
  return splitLines(text.substr(headerEnd + 1), last);
}

size_t skipSeparators(std::string_view text, size_t pos, Separator sep) {
  while (pos < text.size() && isSeparator(text[pos], sep)) ++pos;
  return pos < text.size() ? pos : text.size();
}

size_t skipValue(std::string_view text, size_t pos, Separator sep) {
  while (pos < text.size() && !isSeparator(text[pos], sep)) ++pos;
  return pos < text.size() ? pos : text.size();
}

std::string_view nextColumn(std::string_view text, size_t& pos, Separator sep) {
  size_t start = skipSeparators(text, pos, sep);
  pos = skipValue(text, start, sep);
  return text.substr(start, pos - start);
}

std::vector<std::string_view> splitColumns(std::string_view line, Separator sep) {
  std::vector<std::string_view> columns;
  size_t pos = 0;
  for (;;) {
    std::string_view value = nextColumn(line, pos, sep);
    if (value.empty()) break;
    columns.push_back(value);
  }
  return columns;
}

std::string_view column(std::string_view line, size_t n, Separator sep) {
  std::string_view rest = skipColumns(line, n, sep);
  return rest.substr(0, skipValue(rest, 0, sep));
}

std::string_view skipColumns(std::string_view line, size_t n, Separator sep) {
  size_t pos = skipSeparators(line, 0, sep);
  for (size_t i = 0; i < n && pos < line.size(); ++i) {
    pos = skipSeparators(line, skipValue(line, pos, sep), sep);
  }
  return line.substr(pos);
}

std::string_view trim(std::string_view text, Separator sep) {
  size_t start = skipSeparators(text, 0, sep);
  size_t end = text.size();
  while (end > start && isSeparator(text[end - 1], sep)) --end;
  return text.substr(start, end - start);
}

const char* skipSeparators(const char* p, Separator sep) {
  while (p != nullptr && *p != '\0' && isSeparator(*p, sep)) ++p;
  return p;
}

const char* skipValue(const char* p, Separator sep) {
  while (p != nullptr && *p != '\0' && !isSeparator(*p, sep)) ++p;
  return p;
}

std::string quoteArgument(std::string_view text) {
  bool plain = !text.empty();
  for (char c : text) {
    const bool safe = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_' || c == '@' || c == '%' || c == '+' || c == '=' || c == ':' ||
                      c == ',' || c == '.' || c == '/' || c == '-';
    if (!safe) {
      plain = false;
      break;
    }
  }
  if (plain) return std::string(text);
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  quoted += '\'';
  return quoted;
}

bool isDigits(std::string_view text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

int64_t toInt64(std::string_view text) {
  size_t pos = skipSeparators(text, 0);
  bool negative = false;
  if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
    negative = text[pos] == '-';
    ++pos;
  }
  int64_t value = 0;
  for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos) {
    if (value > (INT64_MAX - 9) / 10) break;
    value = value * 10 + (text[pos] - '0');
  }
  return negative ? -value : value;
}

int toInt(std::string_view text) {
  const int64_t value = toInt64(text);
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int>(value);
}

bool isEmptyTable(std::string_view output, std::string_view firstHeading) {
  std::vector<std::string_view> lines;
  for (std::string_view line : splitLines(output)) {
    if (!trim(line).empty()) lines.push_back(line);
  }
  if (lines.empty()) return true;
  const std::string_view first = column(lines.front(), 0);
  return lines.size() == 1 && first.size() == firstHeading.size() &&
         std::equal(first.begin(), first.end(), firstHeading.begin(), [](char a, char b) {
           auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
           return lower(a) == lower(b);
         });
}

bool hasControlCharacter(std::string_view text) {
  for (char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f) return true;
  }
  return false;
}

}  // namespace text
}  // namespace hds
