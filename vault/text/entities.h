// Named character references of HTML 4 and the few of HTML 5 that mail carries.
#pragma once

#include <string_view>

namespace vault::text {

constexpr std::size_t kLongestEntity = 8;

// The character that `name` (without & and ;) stands for, or 0.
char16_t EntityCharacter(std::string_view name);

// The longest beginning of `name` that is a reference even without its semicolon (the Latin-1 ones): its character and
// its length; 0 and 0 when there is none.
struct LegacyEntity {
  char16_t character = 0;
  std::size_t length = 0;
};
LegacyEntity EntityWithoutSemicolon(std::string_view name);

}  // namespace vault::text
