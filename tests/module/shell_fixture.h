// The shell folder's code in the test program, over a small store in the provider's checked build, in a registry and
// folders of the test's own.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <shlobj.h>
#include <wrl/client.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/searchapi.h"
#include "tests/support/log_lines.h"
#include "tests/support/provider_faults.h"
#include "tests/support/scratch_registry.h"

namespace shell {

inline std::string Narrow(const std::wstring& text) {
  return std::string(text.begin(), text.end());
}

// An item ID and its memory.
struct ItemId {
  ItemId() = default;
  ~ItemId() { CoTaskMemFree(list); }
  ItemId(const ItemId&) = delete;
  ItemId& operator=(const ItemId&) = delete;
  PITEMID_CHILD child() const { return reinterpret_cast<PITEMID_CHILD>(list); }
  PIDLIST_RELATIVE list = nullptr;
};

// Message boxes of this thread while it lives: closed at once, their texts kept. They show on a desktop of the test's
// own, which needs no display.
class Boxes {
 public:
  Boxes();
  ~Boxes();
  Boxes(const Boxes&) = delete;
  Boxes& operator=(const Boxes&) = delete;
  // "title: text" of each since the last time.
  static std::vector<std::wstring> Take();

 private:
  HHOOK hook_;
};
extern const std::wstring kCannotShow, kCannotDelete;
// The stream of a file that says where it came from; a file of its own where there are no streams.
inline constexpr wchar_t kMark[] = L":Zone.Identifier";

// What is attached to the store's one message, in this order.
enum Attached : size_t { kReport, kBlank, kInner, kFirstProgram };
extern const std::vector<std::string> kPrograms;  // and what no handler may get

class Shell : public testing::Test {
 protected:
  Shell();
  ~Shell() override;

  void Parse(const std::wstring& url, ItemId& item);
  template <class Interface>
  HRESULT UIObject(const std::wstring& url, REFIID iid, Microsoft::WRL::ComPtr<Interface>& object) {
    ItemId item;
    Parse(url, item);
    PCUITEMID_CHILD child = item.child();
    return folder_->GetUIObjectOf(nullptr, 1, &child, iid, nullptr,
                                  reinterpret_cast<void**>(object.ReleaseAndGetAddressOf()));
  }
  HRESULT Bind(const std::wstring& url, REFIID iid, std::string* bytes = nullptr);
  // The item's command, by the offset of its menu item or by a verb of either width.
  HRESULT Invoke(const std::wstring& url, UINT offset);
  HRESULT Invoke(const std::wstring& url, const wchar_t* verb, bool wide);
  static HRESULT Call(IContextMenu* menu, const void* verb, bool wide);

  // Registers commands for "open" and "print" of a type of file.
  void Handle(const wchar_t* extension);
  // What the handler was called with, "verb path"; empty when nothing comes.
  std::wstring Handled(DWORD milliseconds = 10'000);

  std::vector<std::wstring> TemporaryFiles() const;  // their full paths
  void EmptyTemporaryFolder() const;
  std::wstring TemporaryFolder() const { return roaming_ + L"\\zkoffline3x"; }
  // Whether the lines contain these in this order; each as it begins.
  static testing::AssertionResult InOrder(const std::vector<std::string>& lines, const std::vector<std::string>& parts);
  // The same of what the log got since the last time.
  testing::AssertionResult Said(const std::vector<std::string>& parts) { return InOrder(log_->New(), parts); }
  // A stream of a compound file, as text.
  static std::wstring TextIn(const std::wstring& file, const wchar_t* stream);

  ScratchRegistry registry_;
  std::unique_ptr<LogLines> log_;
  std::wstring folder_path_, roaming_, store_path_, handled_;
  std::wstring root_, vault_, inbox_, message_;
  std::vector<std::wstring> attachments_;
  Microsoft::WRL::ComPtr<IShellFolder> folder_;
  ProviderFaults::Alive before_;
  DWORD converter_ = 0;
};

}  // namespace shell
