// docs/items.md as the module's tables have it.
#pragma once

#include <string>

std::string ItemsPage();
