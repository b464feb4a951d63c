#include "index/commands.h"
namespace hoardex {
int RunWhy(const Environment&, const WhyArguments&) {
  return 0;
}
}  // namespace hoardex
