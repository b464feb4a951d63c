#include "winindex/ChangeQueue.h"

#include <algorithm>
#include <iterator>

#include "winindex/ComObject.h"
#include "winindex/StateFiles.h"
#include "winindex/Text.h"

namespace winindex {
namespace {

constexpr wchar_t kFile[] = L"changes.txt";
constexpr const wchar_t* kKinds[] = {L"add", L"delete", L"modify"};
// More than the longest line takes.
constexpr size_t kEnd = 512 << 10;
// Numbers beyond are no numbers for readers of JSON; a line that has one was not written here.
constexpr ULONGLONG kMaxId = (1ULL << 53) - (1ULL << 40);

// A number that no earlier change had, even if the queue has been empty meanwhile: microseconds of the clock.
ULONGLONG Now() {
  FILETIME time;
  GetSystemTimeAsFileTime(&time);
  constexpr ULONGLONG kUnixEpoch = 116'444'736'000'000'000ULL;
  const ULONGLONG ticks = (static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
  return ticks > kUnixEpoch ? (ticks - kUnixEpoch) / 10 : 1;
}

// number <tab> add|delete|modify <tab> URL
std::vector<NumberedChange> Parse(std::string_view text) {
  std::vector<NumberedChange> changes;
  for (const std::string_view line : CompleteLines(text)) {
    const std::vector<std::wstring> fields = SplitFields(line);
    if (fields.size() != 3 || fields[2].empty() || fields[2].find(L'\0') != std::wstring::npos) continue;
    const auto kind = std::find(std::begin(kKinds), std::end(kKinds), fields[1]);
    if (kind == std::end(kKinds)) continue;
    if (fields[0].empty() || fields[0].find_first_not_of(L"0123456789") != std::wstring::npos) continue;
    NumberedChange change;
    change.id = wcstoull(fields[0].c_str(), nullptr, 10);
    // Out of order it could not be taken away without others that nobody has seen.
    if (change.id > kMaxId || change.id <= (changes.empty() ? 0 : changes.back().id)) continue;
    change.kind = static_cast<SEARCH_KIND_OF_CHANGE>(kind - std::begin(kKinds));
    change.url = fields[2];
    changes.push_back(std::move(change));
  }
  return changes;
}

std::string LineOf(ULONGLONG id, const Change& change) {
  return JoinFields({std::to_wstring(id), kKinds[change.kind], change.url});
}

}  // namespace

void QueueChanges(const std::vector<Change>& changes) {
  const StateLock lock;
  const StateFile file(kFile);
  const std::vector<NumberedChange> last = Parse(file.ReadEnd(kEnd));
  ULONGLONG id = std::max(Now(), last.empty() ? 0 : last.back().id + 1);
  // Behind a number at the limit a change would be written that nobody reads: refused until the queue has been emptied.
  Require(id + changes.size() <= kMaxId, HRESULT_FROM_WIN32(ERROR_ARITHMETIC_OVERFLOW));
  std::string lines;
  for (const Change& change : changes) lines += LineOf(id++, change);
  file.Append(lines);
}

std::vector<NumberedChange> QueuedChanges() {
  const StateLock lock;
  return Parse(StateFile(kFile).Read());
}

bool TakeChangesAway(ULONGLONG last) {
  const StateLock lock;
  const StateFile file(kFile);
  const std::vector<NumberedChange> all = Parse(file.Read());
  std::string rest;
  for (const NumberedChange& change : all)
    if (change.id > last) rest += LineOf(change.id, change);
  const bool any = !all.empty() && all.front().id <= last;
  if (any || rest.empty()) file.Replace(rest);
  return any;
}

void ForgetChanges() {
  const StateLock lock;
  StateFile(kFile).Replace({});
}

}  // namespace winindex
