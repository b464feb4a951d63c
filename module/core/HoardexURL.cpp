#include "module/core/HoardexURL.h"

#include <vector>

#include "module/core/SCLog.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\MapiForWDS";

}  // namespace

void CHoardexURL::Init(std::wstring_view url) noexcept {
  try {
    url_ = url::Trim(url);
    kind_ = url::Classify(url_);
  } catch (...) {
    logging::Write(kLogSource, 366, SCLog::kOrdinary, L"Exception in CHoardexURL::Init() - URL: %s", url_.c_str());
  }
}

void GetAttachmentNameFromURL(std::wstring_view url, std::wstring& name) {
  name.clear();
  if (url.empty() || !CHoardexURL(url).IsAttachment()) return;
  std::vector<std::wstring> tokens;
  if (ExtractURLTokens(url, tokens) <= 0) {
    ZK_LOG(L"GetAttachmentNameFromURL() - ExtractURLTokens failed for url - %s", std::wstring(url).c_str());
    return;
  }
  name = tokens.back();
}
