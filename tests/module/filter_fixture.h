// The built module over stores that a test writes, read through its COM objects as an indexer does.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/filter_double.h"
#include "tests/support/item_chunks.h"
#include "tests/support/module_host.h"
#include "vault/writer.h"

inline constexpr wchar_t kRoot[] = L"zkoffline3x://{S-1-5-21-1}/default/";
inline constexpr wchar_t kPolicyKey[] = L"Software\\Policies\\Microsoft\\Windows\\Windows Search";
inline constexpr ULONG kMail = 0xE3E0584C, kStorage = 0xB725F130, kSummary = 0xF29F85E0, kShell = 0x28636AA6,
                       kLink = 0x0B63E343, kKind = 0x1E3EE840, kAutoSummary = 0x560C36C0, kItemName = 0x6B8DA074;

// How the filter of a file type behaves, and what it was asked.
struct InnerBehaviour {
  bool persists = true;
  HRESULT load = S_OK, init = S_OK, value = FILTER_E_NO_VALUES;
  bool had_stream = false;
  ULONG init_flags = 0, init_count = 0;
  const FULLPROPSPEC* init_attributes = nullptr;
  ULONG* init_out = nullptr;
};

// The filter of a file type: one text chunk with the file's bytes.
class FileFilter final : public FilterDouble {
 public:
  explicit FileFilter(InnerBehaviour& behaviour) : behaviour_(behaviour) {}
  STDMETHODIMP Load(IStream* stream) override {
    behaviour_.had_stream = stream != nullptr;
    char bytes[4096];
    ULONG read = 0;
    if (stream) stream->Read(bytes, sizeof(bytes), &read);
    text_.assign(bytes, bytes + read);
    return behaviour_.load;
  }
  STDMETHODIMP_(SCODE) Init(ULONG flags, ULONG count, const FULLPROPSPEC* attributes, ULONG* out) override {
    behaviour_.init_flags = flags;
    behaviour_.init_count = count;
    behaviour_.init_attributes = attributes;
    behaviour_.init_out = out;
    return behaviour_.init;
  }
  STDMETHODIMP_(SCODE) GetChunk(STAT_CHUNK* stat) override {
    if (given_++) return FILTER_E_END_OF_CHUNKS;
    *stat = {};
    stat->idChunk = 1;
    stat->flags = CHUNK_TEXT;
    return S_OK;
  }
  STDMETHODIMP_(SCODE) GetText(ULONG* count, WCHAR* buffer) override {
    if (text_.empty()) return FILTER_E_NO_MORE_TEXT;
    text_.copy(buffer, text_.size());
    *count = static_cast<ULONG>(text_.size());
    text_.clear();
    return FILTER_S_LAST_TEXT;
  }
  STDMETHODIMP_(SCODE) GetValue(PROPVARIANT**) override { return behaviour_.value; }

 private:
  bool persists() const override { return behaviour_.persists; }

  InnerBehaviour& behaviour_;
  std::wstring text_;
  int given_ = 0;
};

class Site final : public IProtocolHandlerSite {
 public:
  STDMETHODIMP QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP GetFilter(CLSID* clsid, LPCWSTR type, LPCWSTR extension, IFilter** filter) override {
    *filter = !clsid && !type && known.count(extension) ? new FileFilter(inner) : nullptr;
    return *filter ? S_OK : E_FAIL;
  }

  std::set<std::wstring> known = {L"txt"};
  InnerBehaviour inner;
};

class Filter : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Protocol object's Init, which also reads the policy.
  void Start();
  void SetPolicy(DWORD prevent, const std::wstring& excluded);
  std::wstring Write(const vault::StoreBuilder& store);
  std::vector<Chunk> Read(const std::wstring& url, ULONG room = 1000);
  static std::vector<std::wstring> Links(const std::vector<Chunk>& chunks);
  // The URLs of the messages of the store's first folder that holds any.
  std::vector<std::wstring> MessagesOf(const std::wstring& vault);
  // The links that the first message of the store has to its attachments.
  std::vector<std::wstring> AttachmentsOf(const vault::StoreBuilder& store);
  static const Chunk* Find(const std::vector<Chunk>& chunks, ULONG fmtid, ULONG pid);
  // The text of the property, or "<absent>".
  static std::wstring Text(const std::vector<Chunk>& chunks, ULONG fmtid, ULONG pid);
  static vault::MessageBuilder& AddMail(vault::FolderBuilder& folder);
  static std::wstring TemporaryFolder();
  static size_t TemporaryFiles();
  // What the log got since the last time it was asked for.
  std::string NewLog();
  // Whether it got that line, word for word.
  static bool HasLine(const std::string& log, const std::string& line);

  // Brings the filter to its text; false when there is none.
  static bool ToText(IFilter* filter);
  // The string, or the URL of the link, that GetValue gives now; "<empty>" for a value of no type.
  static std::wstring TakeText(IFilter* filter);

  vault::StoreBuilder store_{"items"};
  ModuleHost host_;
  Site site_;
  std::filesystem::path folder_;
  Microsoft::WRL::ComPtr<ISearchProtocol> protocol_;
  long left_alive_ = 0;
  size_t log_read_ = 0;
};
