#pragma once

// The INI text of the client settings store, as free functions over text; not part of the
// installed interface.

#include <string>

namespace hds::platform {

// The value of key in section (the last one when the file repeats it); false when absent.
bool findSetting(const std::string& text, const std::string& section, const std::string& key,
                 std::string& value);

// text with key in section set to *value, or removed when value is nullptr. Other lines, comments
// included, are kept as they are; a new key goes at the end of its section, a new section at the
// end of the text.
std::string withSetting(const std::string& text, const std::string& section, const std::string& key,
                        const std::string* value);

// Makes the next settings rewrites fail at one step, as a full disk or a broken medium would.
enum class SettingsFault { kNone, kWrite, kFsync, kRename };
void setSettingsFaultForTest(SettingsFault fault);

}  // namespace hds::platform
