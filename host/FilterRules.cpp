#include "host/FilterRules.h"

#include <iterator>

namespace host {
namespace {

constexpr RuleInfo kRules[] = {
    {"chunk-ids", "the id of a chunk is not zero and above all before it", false},
    {"chunk-state", "a chunk has exactly one known state and a known break type", false},
    {"chunk-source", "a chunk that is derived from no other names itself as its source", false},
    {"chunk-results", "GetChunk fills in a chunk, or answers one of the codes that IFilter has for it", false},
    {"chunks-end", "the chunks come to an end", false},
    {"chunks-over", "after the end, GetChunk answers END_OF_CHUNKS again and again", false},
    {"text-results", "GetText answers S_OK, LAST_TEXT or NO_MORE_TEXT, and text comes to an end", false},
    {"text-there", "a text chunk brings text", true},
    {"text-over", "after the last text, GetText answers NO_MORE_TEXT again and again", false},
    {"text-bounds", "GetText writes no more than asked for, and says how much", false},
    {"text-terminator", "GetText writes no terminator past the end of the buffer", false},
    {"text-pieces", "the text is the same whatever the size of the buffer", false},
    {"value-once", "a value is given once, then GetValue answers NO_MORE_VALUES", false},
    {"values-over", "after the value, GetValue answers NO_MORE_VALUES again and again", false},
    {"value-memory", "a value is the task allocator's, of a storable type, and can be cleared", false},
    {"value-of-text", "GetValue on a text chunk answers NO_VALUES, and the text still comes", false},
    {"text-of-value", "GetText on a value chunk answers NO_TEXT, and the value still comes", false},
    {"attributes", "only attributes that Init asked for are given", false},
    {"init-again", "Init in the middle starts from the beginning", false},
    {"same-again", "a new filter over the same item gives the same", false},
    {"init-flags", "Init says in its flags whether properties lie elsewhere", false},
    {"init-arguments", "Init refuses a count of attributes without the attributes", false},
    {"init-unloaded", "Init refuses before anything is loaded", false},
    {"null-arguments", "missing arguments are refused, and harm nothing", false},
    {"locale", "text and string values have a locale that exists", false},
    {"breaks", "a chunk of another property than the one before it is set apart by its break type", false},
    {"persist", "a stream, file or storage can be loaded, and the class has an identifier", false},
    {"threads", "filters of several threads, each with its own, give the same", false},
    {"free-threads", "threads of one free apartment can use a filter in turn", false},
};
static_assert(std::size(kRules) == static_cast<size_t>(Rule::kCount));

constexpr unsigned kContainers = kRootItem | kVaultItem | kFolderItem;
constexpr unsigned kAttachments = kAttachmentItem | kBareAttachmentItem;
constexpr unsigned kAll = kContainers | kMessageItem | kAttachments;

struct Waiver {
  Rule rule;
  unsigned kinds;
  bool only_when_barred;
  const char* reason;
};
constexpr char kUntouched[] = "where policy bars attachments, a chunk of theirs is answered with S_OK and left alone";
// The first that fits counts.
constexpr Waiver kWaivers[] = {
    {Rule::kChunkIds, kMessageItem | kAttachments, true, kUntouched},
    {Rule::kChunkResults, kMessageItem | kAttachments, true, kUntouched},
    {Rule::kChunksEnd, kAttachments, true, kUntouched},
    {Rule::kChunksOver, kAttachments, true, kUntouched},
    {Rule::kChunkIds, kAttachmentItem, false, "the chunks of the content keep the ids of the type's own filter"},
    {Rule::kChunkSource, kAll, false, "the source of a chunk is left at zero: chunks are whole, none is an excerpt"},
    {Rule::kChunksOver, kMessageItem, false, "after its end the message starts again, with ids that go on"},
    {Rule::kTextTerminator, kMessageItem, false, "a body is terminated even where that falls past the caller's count"},
    {Rule::kValueOnce, kAll, false, "a value is made anew on every call; roots and containers go on to the next one"},
    {Rule::kValuesOver, kAll, false, "a value is made anew on every call, so values are never used up"},
    {Rule::kTextOfValue, kContainers | kMessageItem | kBareAttachmentItem, false,
     "GetText looks at the body alone: without one, it is at its end"},
    {Rule::kAttributes, kAll, false, "all that an item has is given; the index takes what it wants"},
    {Rule::kInitAgain, kContainers | kMessageItem, false, "Init resets nothing: a filter is bound anew for every run"},
    {Rule::kInitFlags, kContainers | kMessageItem | kBareAttachmentItem, false, "Init leaves its flags as they are"},
    {Rule::kInitArguments, kContainers | kMessageItem | kBareAttachmentItem, false, "Init looks at no attributes"},
    {Rule::kBreaks, kAll, false, "every chunk has no break: values are apart anyway, and there is one text"},
};

constexpr struct {
  unsigned kind;
  const char* name;
} kKinds[] = {
    {kRootItem, "root"},        {kVaultItem, "vault"},           {kFolderItem, "folder"},
    {kMessageItem, "message"},  {kAttachmentItem, "attachment"}, {kBareAttachmentItem, "attachment without a filter"},
    {kForeignFilter, "filter"},
};

}  // namespace

const RuleInfo& InfoOf(Rule rule) {
  return kRules[static_cast<size_t>(rule)];
}

const char* NameOfKind(unsigned kind) {
  for (const auto& entry : kKinds)
    if (entry.kind == kind) return entry.name;
  return "unknown";
}

const char* WaiverOf(Rule rule, unsigned kind, bool attachments_barred) {
  for (const Waiver& waiver : kWaivers)
    if (waiver.rule == rule && (waiver.kinds & kind) && (attachments_barred || !waiver.only_when_barred))
      return waiver.reason;
  return nullptr;
}

void RuleTally::Note(Rule rule, bool kept, std::string_view seen) {
  Count& count = counts_[static_cast<size_t>(rule)];
  ++count.checked;
  if (kept) return;
  if (!count.broken++) count.seen = seen;
}

}  // namespace host
