#include "index/shell_answer.h"

#include "index/text.h"

namespace hoardex {
namespace {

using nlohmann::json;

// The first row that fits tells. An empty step or verb stands for any.
struct Row {
  std::string_view code, step, verb, sentence;
};
constexpr std::string_view kNobodyPrints = "No program is registered that prints files of this type.",
                           kNobodyOpens =
                               "No program is registered that opens files of this type; for mails, ./hoardex setup "
                               "registers the desktop's.",
                           kNoProgram = "The program that is registered for files of this type is not there.",
                           kRuns =
                               "Files of this type could run as programs and are not opened; hoardex export writes it "
                               "to a file.",
                           kGone = "The item is not in its vault (any more).", kDiskFull = "The disk is full.";
constexpr Row kRows[] = {
    {"0x80040154", "CoCreateInstance", "", "The module is not registered; ./hoardex setup registers it."},
    {"0x80040154", "", "", "No MIME converter is registered; ./hoardex setup registers it."},
    {"", "Desktop", "", "There is no desktop here that could show it; hoardex export writes it to a file."},
    {"0x80070483", "", "print", kNobodyPrints},
    {"0x80070483", "", "open", kNobodyOpens},
    // What Wine leaves behind when it has tried to run the file itself.
    {"0x800700C1", "", "print", kNobodyPrints},
    {"0x800700C1", "", "open", kNobodyOpens},
    {"0x80070002", "", "open", kNoProgram},
    {"0x80070002", "", "print", kNoProgram},
    {"0x80070005", "", "open", kRuns},
    {"0x80070005", "", "print", kRuns},
    {"0x8004010F", "", "", kGone},
    {"0x80040107", "", "", kGone},
    {"0x80030070", "", "", kDiskFull},
    {"0x80070070", "", "", kDiskFull},
};

std::string Text(const json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? OneLine(found->get<std::string>()) : "";
}

}  // namespace

std::optional<ItemError> ErrorOfAnswer(const json& answer) {
  if (const auto error = answer.find("error"); error != answer.end() && error->is_object())
    return ItemError{Text(*error, "step"), Text(*error, "code"), Text(*error, "name")};
  const std::string code = Text(answer, "result");
  // Success is a code below 0x80000000.
  if (code.size() == 10 && code[2] < '8') return std::nullopt;
  return ItemError{"", code, Text(answer, "name")};
}

std::string ExplainShellError(const ItemError& error, std::string_view verb) {
  for (const Row& row : kRows) {
    const bool fits = (row.code.empty() || row.code == error.code) && (row.step.empty() || row.step == error.step) &&
                      (row.verb.empty() || row.verb == verb);
    if (!fits) continue;
    // The codes are for those who look one up.
    return std::string(row.sentence) +
           (row.code.empty() ? "" : " (" + error.code + (error.name.empty() ? "" : " " + error.name) + ")");
  }
  return "The module gave " + error.Describe() + ".";
}

}  // namespace hoardex
