// Item URLs: see UrlGrammar.h.
#pragma once

#include <string>
#include <string_view>

#include "module/core/UrlGrammar.h"

// An item URL and what kind of item it names. Classification never fails outward: what is not one of our URLs is
// kUnknown.
class CHoardexURL {
 public:
  using Kind = url::Kind;
  using enum url::Kind;

  explicit CHoardexURL(std::wstring_view url) { Init(url); }

  Kind kind() const { return kind_; }
  bool IsRoot() const { return kind_ == kRoot; }
  bool IsContainer() const { return kind_ == kVaultFile || kind_ == kFolder; }
  bool IsStore() const { return kind_ == kVaultFile; }
  bool IsMessage() const { return kind_ == kMessage; }
  bool IsAttachment() const { return kind_ == kAttachment; }
  const std::wstring& text() const { return url_; }  // trimmed of white space at both ends

 private:
  void Init(std::wstring_view url) noexcept;

  std::wstring url_;
  Kind kind_ = kUnknown;
};

// The display name of an attachment URL; empty for every other URL.
void GetAttachmentNameFromURL(std::wstring_view url, std::wstring& name);
