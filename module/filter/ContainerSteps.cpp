// The three steps of the root, whose children are vault files, and of the containers in them.
#include "module/core/SCLog.h"
#include "module/filter/ItemSteps.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexFilter";
using url::kVaultToken;

using enum PropertySource;

}  // namespace

constinit const ItemSequence::Row ItemSteps::kRootRows[3] = {
    /* 1 */ {kNone, 0, 0, kMovesOnByValue, &key::ItemName, Member<&CHoardexFilter::root_name_>},
    /* 2 */ {kNone, 0, 0, kMovesOnByValue, &key::ItemPathDisplay, Separator},
    /* 3 */ {kNone, 0, 0, 0, &key::UrlToIndexWithModificationTime, Link, &kVaultFiles},
};

constinit const ItemSequence::Row ItemSteps::kContainerRows[3] = {
    /* 1 */ {kNone, 0, 0, kMovesOnByValue, &key::ItemName, LastOfPath},
    /* 2 */ {kNone, 0, 0, kMovesOnByValue, &key::ItemPathDisplay, ParentOfPath},
    /* 3 */ {kNone, 0, 0, 0, &key::UrlToIndexWithModificationTime, Link, &kChildren},
};

constinit const ItemSequence ItemSteps::kOfRoot = {.item = "Root",
                                                   .rows = kRootRows,
                                                   .counter = &CHoardexFilter::root_step_,
                                                   .first = 1,
                                                   .walks = false,
                                                   .traces = false,
                                                   .enter = EnterRoot,
                                                   .leave = End,
                                                   .beyond = nullptr,
                                                   .before_value = nullptr};

constinit const ItemSequence ItemSteps::kOfContainer = {.item = "Vault file or folder",
                                                        .rows = kContainerRows,
                                                        .counter = &CHoardexFilter::root_step_,
                                                        .first = 1,
                                                        .walks = false,
                                                        .traces = false,
                                                        .enter = EnterContainer,
                                                        .leave = End,
                                                        .beyond = nullptr,
                                                        .before_value = TakeFolderOutOfPath};

constinit const ItemSequence::Rule ItemSteps::kVaultFiles = {[](CHoardexFilter& filter) {
                                                               if (filter.NextVaultFile()) return Outcome::kGive;
                                                               ++filter.root_step_;
                                                               return Outcome::kEnd;
                                                             },
                                                             "again for each vault file of the user"};

constinit const ItemSequence::Rule ItemSteps::kChildren = {
    [](CHoardexFilter& filter) {
      if (++filter.link_index_ < static_cast<int>(filter.child_urls_.size())) return Outcome::kGive;
      ++filter.root_step_;
      return Outcome::kEnd;
    },
    "again for each message and folder in it"};

ItemSequence::Outcome ItemSteps::EnterRoot(CHoardexFilter& filter) {
  ZK_LOG(L"CHoardexFilter::GetChunk() - Default URL, HXDir is [%s]", filter.url_.c_str());
  return Outcome::kGive;
}

ItemSequence::Outcome ItemSteps::EnterContainer(CHoardexFilter& filter) {
  if (!filter.mapi_) return Outcome::kEnd;
  return filter.child_urls_.empty() && !filter.ListChildren() ? Outcome::kEnd : Outcome::kGive;
}

// Takes the first vault file that is left as the only link. False when none is.
bool CHoardexFilter::NextVaultFile() {
  if (!links_built_) {
    EnumAllHXFiles(vault_files_);
    links_built_ = true;
  }
  child_urls_.clear();
  if (next_vault_file_ >= vault_files_.size()) return false;
  const std::wstring file = vault_files_[next_vault_file_];
  child_urls_.push_back(url::Child(url_, file) + L"/");
  link_index_ = 0;
  FILETIME time = {};
  if (!CMapiForWDS::GetLastModifiedFileTime(file, &time)) time = {};
  child_times_.assign(1, time);
  ++next_vault_file_;
  return true;
}

// Lists the container's children as full URLs and makes its display path. False when it cannot be browsed.
bool CHoardexFilter::ListChildren() {
  child_times_.clear();
  std::wstring folder_path;
  std::vector<std::wstring> names;
  if (FAILED(mapi_->BrowseFolder(url_, folder_path, names, child_times_))) return false;
  std::vector<std::wstring> tokens;
  if (ExtractURLTokens(url_, tokens) > static_cast<int>(kVaultToken)) {
    const std::wstring& token = tokens[kVaultToken];
    const std::wstring vault = token.substr(0, token.size() - (std::size(url::kVaultSuffix) - 1));
    display_path_ = L"/" + root_name_ + L"/" + vault;
    if (!folder_path.empty()) display_path_ += L"/" + folder_path;
    ZK_LOG(L"%s Path:%s tok:%s", L"CHoardexFilter::GetChunk()", display_path_.c_str(), token.c_str());
  }
  child_urls_.clear();
  child_urls_.reserve(names.size());
  for (const std::wstring& name : names) {
    std::wstring child = url::Child(url_, name);
    if (!CHoardexURL(child).IsMessage()) child.push_back(L'/');
    child_urls_.push_back(std::move(child));
  }
  return true;
}

HRESULT ItemSteps::Separator(CHoardexFilter&, const SPropValue*, PROPVARIANT& value) {
  return variant::SetString(value, L"/");
}

// The stored path is changed, and again by each call: what a folder's name holds before a backslash goes, too.
void ItemSteps::TakeFolderOutOfPath(CHoardexFilter& filter) {
  std::wstring& path = filter.display_path_;
  const size_t backslash = path.rfind(L'\\'), length = filter.root_name_.size();
  if (backslash != std::wstring::npos && backslash > length + 1) path.erase(length + 2, backslash - length - 1);
}

HRESULT ItemSteps::LastOfPath(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
  const std::wstring_view path(filter.display_path_);
  return variant::SetString(value, path.substr(path.rfind(L'/') + 1));
}

HRESULT ItemSteps::ParentOfPath(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
  const std::wstring_view path(filter.display_path_);
  const size_t slash = path.rfind(L'/');
  return variant::SetString(value, slash == std::wstring_view::npos ? std::wstring_view() : path.substr(0, slash));
}
