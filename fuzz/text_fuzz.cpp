// The line splitter and column scanner every output parser stands on: whatever a tool prints,
// they stay inside the text and agree with each other.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "hds/common/internal/HDSText.h"

using hds::text::Separator;

static void check(bool condition) {
  if (!condition) std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (auto last : {hds::text::LastLine::Keep, hds::text::LastLine::Drop}) {
    const auto lines = hds::text::splitLines(text, last);
    const auto data = hds::text::dataLines(text, last);
    check(data.size() == (lines.empty() ? 0 : lines.size() - 1));
    for (size_t i = 0; i < data.size(); ++i) check(data[i] == lines[i + 1]);
    for (std::string_view line : lines) {
      check(line.data() >= text.data() && line.data() + line.size() <= text.data() + text.size());
      check(line.find('\n') == std::string_view::npos);
      for (Separator sep : {Separator::Blank, Separator::Space}) {
        const auto columns = hds::text::splitColumns(line, sep);
        for (size_t i = 0; i < columns.size(); ++i) {
          check(!columns[i].empty());
          for (char c : columns[i]) check(!hds::text::isSeparator(c, sep));
          check(hds::text::column(line, i, sep) == columns[i]);
          check(hds::text::skipColumns(line, i, sep).substr(0, columns[i].size()) == columns[i]);
        }
        check(hds::text::column(line, columns.size(), sep).empty());
      }
    }
  }
  const int64_t number = hds::text::toInt64(text);
  check(hds::text::toInt(text) == (number > INT32_MAX   ? INT32_MAX
                                   : number < INT32_MIN ? INT32_MIN
                                                        : static_cast<int>(number)));
  return 0;
}
