// The rules of the IFilter contract (filter.h of the Windows SDK and its documentation), one by one, and where the
// module departs from them on purpose.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "host/Text.h"

namespace host {

enum class Rule {
  kChunkIds,
  kChunkState,
  kChunkSource,
  kChunkResults,
  kChunksEnd,
  kChunksOver,
  kTextResults,
  kTextThere,
  kTextOver,
  kTextBounds,
  kTextTerminator,
  kTextPieces,
  kValueOnce,
  kValuesOver,
  kValueMemory,
  kValueOfText,
  kTextOfValue,
  kAttributes,
  kInitAgain,
  kSameAgain,
  kInitFlags,
  kInitArguments,
  kInitUnloaded,
  kNullArguments,
  kLocale,
  kBreaks,
  kPersist,
  kThreads,
  kFreeThreads,
  kCount,
};

struct RuleInfo {
  const char* name;   // "chunk-ids"
  const char* text;   // what a filter must do
  bool only_warning;  // a departure is told, but fails nothing
};
const RuleInfo& InfoOf(Rule rule);

// Kinds of items, as bits; the module's own and, at the end, any other filter.
enum ItemKinds : unsigned {
  kRootItem = 1,
  kVaultItem = 2,
  kFolderItem = 4,
  kMessageItem = 8,
  kAttachmentItem = 16,      // its type has a filter, which follows the module's own chunks
  kBareAttachmentItem = 32,  // its type has none
  kForeignFilter = 64,
};
const char* NameOfKind(unsigned kind);

// Why an item of this kind may break the rule; null when it may not. `attachments_barred`: the group policy keeps
// attachments out.
const char* WaiverOf(Rule rule, unsigned kind, bool attachments_barred);

// What became of the rules at one item.
class RuleTally {
 public:
  // Notes one look at a rule; `seen` says what was seen when it was broken.
  void Note(Rule rule, bool kept, std::string_view seen = {});

  struct Count {
    int64_t checked = 0, broken = 0;
    std::string seen;  // at the first break
  };
  const Count& operator[](Rule rule) const { return counts_[static_cast<size_t>(rule)]; }

 private:
  std::array<Count, static_cast<size_t>(Rule::kCount)> counts_;
};

}  // namespace host
