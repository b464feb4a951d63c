// What the host answers when the shell's side of the module is asked to save, open or print an item.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "index/record.h"

namespace hoardex {

// What went wrong, nothing when nothing did.
std::optional<ItemError> ErrorOfAnswer(const nlohmann::json& answer);

// The failure as a sentence that says what to do where something can be done. `verb` is "open", "print" or "save".
std::string ExplainShellError(const ItemError& error, std::string_view verb);

}  // namespace hoardex
