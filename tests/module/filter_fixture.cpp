#include "tests/module/filter_fixture.h"

namespace fs = std::filesystem;
using Microsoft::WRL::ComPtr;

namespace {

constexpr CLSID kClass = {0x6E2F0B6A, 0x3C41, 0x4D0E, {0x9A, 0x57, 0x2B, 0x80, 0xC1, 0x64, 0xE7, 0x1D}};

}  // namespace

void Filter::SetUp() {
  ASSERT_TRUE(host_.loaded());
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  wchar_t temp[MAX_PATH];
  GetTempPathW(MAX_PATH, temp);
  folder_ = fs::path(temp) / (L"HoardexFilterTest" + std::to_wstring(GetCurrentProcessId()));
  fs::create_directories(folder_ / "Vault");
  ScratchRegistry::SetString(HKEY_CURRENT_USER, L"SOFTWARE\\Trelmo\\Zarnak\\Client\\Vault", L"HXRootDirectory",
                             folder_.wstring());
  ComPtr<IClassFactory> factory;
  ASSERT_EQ(host_.GetClassObject(kClass, IID_IClassFactory, &factory), S_OK);
  ASSERT_EQ(factory->CreateInstance(nullptr, __uuidof(ISearchProtocol),
                                    reinterpret_cast<void**>(protocol_.ReleaseAndGetAddressOf())),
            S_OK);
  Start();
  left_alive_ = ModuleHost::LiveObjects();  // of set-ups that failed in other tests
}

void Filter::TearDown() {
  ProviderFaults::Clear();
  if (protocol_) protocol_->ShutDown();
  protocol_.Reset();
  EXPECT_EQ(ModuleHost::LiveObjects(), left_alive_);
  EXPECT_EQ(ModuleHost::LiveBuffers(), 0);
  EXPECT_EQ(host_.Call("DllCanUnloadNow"), S_OK);
  // One by one: fails instead of trying for ever when something still holds the store.
  for (const fs::path& path : {folder_ / "Vault" / "items.db", folder_ / "Vault", folder_})
    EXPECT_TRUE(fs::remove(path));
  CoUninitialize();
}

void Filter::Start() {
  TIMEOUT_INFO timeouts = {};
  PROXY_INFO proxy = {};
  ASSERT_EQ(protocol_->Init(&timeouts, &site_, &proxy), S_OK);
}

void Filter::SetPolicy(DWORD prevent, const std::wstring& excluded) {
  ScratchRegistry::SetDword(HKEY_LOCAL_MACHINE, kPolicyKey, L"PreventIndexingEmailAttachments", prevent);
  ScratchRegistry::SetString(HKEY_LOCAL_MACHINE, kPolicyKey, L"ExcludedExtensionsMultiline0", excluded);
  Start();
}

std::wstring Filter::Write(const vault::StoreBuilder& store) {
  store.Write(folder_ / "Vault" / "items.db");
  return kRoot + (folder_ / "Vault" / "items.db").wstring();
}

std::vector<Chunk> Filter::Read(const std::wstring& url, ULONG room) {
  Item item(protocol_.Get(), url);
  EXPECT_EQ(item.result, S_OK);
  if (FAILED(item.result)) return {};
  EXPECT_EQ(item.Bind(), S_OK);
  std::vector<Chunk> chunks = item.ReadAll(room);
  EXPECT_EQ(item.last, static_cast<HRESULT>(FILTER_E_END_OF_CHUNKS));
  return chunks;
}

std::vector<std::wstring> Filter::Links(const std::vector<Chunk>& chunks) {
  std::vector<std::wstring> links;
  for (const Chunk& chunk : chunks)
    if (chunk.fmtid == kLink) links.push_back(chunk.text);
  return links;
}

std::vector<std::wstring> Filter::MessagesOf(const std::wstring& vault) {
  for (const std::wstring& folder : Links(Read(vault))) {
    std::vector<std::wstring> links = Links(Read(folder));
    if (!links.empty()) return links;
  }
  return {};
}

std::vector<std::wstring> Filter::AttachmentsOf(const vault::StoreBuilder& store) {
  return Links(Read(MessagesOf(Write(store)).at(0)));
}

const Chunk* Filter::Find(const std::vector<Chunk>& chunks, ULONG fmtid, ULONG pid) {
  for (const Chunk& chunk : chunks)
    if (chunk.fmtid == fmtid && chunk.pid == pid) return &chunk;
  return nullptr;
}

std::wstring Filter::Text(const std::vector<Chunk>& chunks, ULONG fmtid, ULONG pid) {
  const Chunk* chunk = Find(chunks, fmtid, pid);
  return chunk ? chunk->text : L"<absent>";
}

vault::MessageBuilder& Filter::AddMail(vault::FolderBuilder& folder) {
  return folder.AddMessage("IPM.Note")
      .Subject("Invoice 17")
      .From("Ann Smith", "ann@example.com")
      .To("Bob", "bob@example.org")
      .Cc("Cy", "cy@example.net")
      .SubmitTime(vault::FileTime(2024, 5, 2, 9, 30));
}

bool Filter::ToText(IFilter* filter) {
  STAT_CHUNK stat = {};
  while (filter->GetChunk(&stat) == S_OK && stat.flags != CHUNK_TEXT) {
  }
  return stat.flags == CHUNK_TEXT;
}

std::wstring Filter::TakeText(IFilter* filter) {
  PROPVARIANT* value = nullptr;
  EXPECT_EQ(filter->GetValue(&value), S_OK);
  if (!value) return L"<nothing>";
  std::wstring text = L"<empty>";
  if (value->vt == VT_LPWSTR) text = value->pwszVal;
  if (value->vt == (VT_VECTOR | VT_VARIANT)) {
    EXPECT_EQ(value->capropvar.cElems, 2u);
    text = value->capropvar.pElems[0].pwszVal;
  }
  PropVariantClear(value);
  CoTaskMemFree(value);
  return text;
}

std::wstring Filter::TemporaryFolder() {
  wchar_t folder[MAX_PATH];
  SHGetFolderPathW(nullptr, CSIDL_APPDATA, nullptr, 0, folder);
  return std::wstring(folder) + L"\\zkoffline3x";
}

size_t Filter::TemporaryFiles() {
  std::error_code none;
  return static_cast<size_t>(std::distance(fs::directory_iterator(TemporaryFolder(), none), {}));
}

std::string Filter::NewLog() {
  const std::string text = ModuleHost::LogText();
  const std::string rest = text.substr(std::min(log_read_, text.size()));
  log_read_ = text.size();
  return rest;
}

bool Filter::HasLine(const std::string& log, const std::string& line) {
  // "[...] Source(12):text " with the runtime's line ending.
  return log.find("):" + line + " \r\n") != std::string::npos;
}
