#include "tests/provider/client.h"

#include <atomic>

namespace test {
namespace {

template <class Function>
void Resolve(HMODULE module, const char* name, Function& function) {
  function = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
  if (!function) ADD_FAILURE() << name << " is not exported";
}

Library Load() {
  Library library{};
  library.module = LoadLibraryW(L"HoardexMapiChecked.dll");
  if (!library.module) ADD_FAILURE() << "HoardexMapiChecked.dll: " << GetLastError();
  const HMODULE m = library.module;
  Resolve(m, "MAPIAllocateBuffer", library.AllocateBuffer);
  Resolve(m, "MAPIAllocateMore", library.AllocateMore);
  Resolve(m, "MAPIFreeBuffer", library.FreeBuffer);
  Resolve(m, "HrGetOneProp", library.GetOneProp);
  Resolve(m, "FreeProws", library.FreeProws);
  Resolve(m, "HrQueryAllRows", library.QueryAllRows);
  Resolve(m, "HexFromBin", library.HexFromBin);
  Resolve(m, "MAPIInitialize", library.Initialize);
  Resolve(m, "MAPIUninitialize", library.Uninitialize);
  Resolve(m, "MAPILogonEx", library.LogonEx);
  Resolve(m, "MAPIAdminProfiles", library.AdminProfiles);
  Resolve(m, "ScDupPropset", library.DupPropset);
  Resolve(m, "PpropFindProp", library.FindProp);
  return library;
}

}  // namespace

const Library& Mapi() {
  static const Library library = Load();
  return library;
}

Tags::Tags(const std::vector<ULONG>& tags) {
  words_.push_back(static_cast<ULONG>(tags.size()));
  words_.insert(words_.end(), tags.begin(), tags.end());
}

HRESULT Values::Get(IMAPIProp* object, const std::vector<ULONG>& tags, ULONG flags) {
  Mapi().FreeBuffer(std::exchange(values, nullptr));
  return object->GetProps(tags.empty() ? nullptr : static_cast<LPSPropTagArray>(Tags(tags)), flags, &count, &values);
}

HRESULT Rows::Query(IMAPITable* table, const std::vector<ULONG>& tags, LONG most) {
  return Mapi().QueryAllRows(table, Tags(tags), nullptr, nullptr, most, &set);
}

OpenStore::OpenStore(const std::wstring& path, HRESULT expected) {
  static std::atomic<int> number{0};
  const Library& mapi = Mapi();
  name_ = "ProviderTest_" + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(++number);
  auto* name = reinterpret_cast<LPTSTR>(name_.data());
  EXPECT_EQ(mapi.Initialize(nullptr), S_OK);
  EXPECT_EQ(mapi.AdminProfiles(0, profiles.Out()), S_OK);
  EXPECT_EQ(profiles->CreateProfile(name, nullptr, 0, 0), S_OK);
  EXPECT_EQ(mapi.LogonEx(0, name, nullptr, MAPI_EXTENDED | MAPI_NEW_SESSION | MAPI_NO_MAIL, session.Out()), S_OK);
  EXPECT_EQ(profiles->DeleteProfile(name, 0), S_OK);
  EXPECT_EQ(profiles->AdminServices(name, nullptr, 0, 0, services.Out()), S_OK);

  char unicode_service[] = "MSUPST MS", display[] = "Test store";
  EXPECT_EQ(
      services->CreateMsgService(reinterpret_cast<LPTSTR>(unicode_service), reinterpret_cast<LPTSTR>(display), 0, 0),
      S_OK);
  Com<IMAPITable> table;
  EXPECT_EQ(services->GetMsgServiceTable(0, table.Out()), S_OK);
  Rows rows;
  EXPECT_EQ(rows.Query(table.get(), {PR_SERVICE_UID}, 1), S_OK);
  if (rows.size() == 1) memcpy(&service, rows.At(0, 0).Value.bin.lpb, sizeof service);

  SPropValue file{};
  file.ulPropTag = PR_PST_FILENAME_W;
  file.Value.lpszW = const_cast<LPWSTR>(path.c_str());
  EXPECT_EQ(services->ConfigureMsgService(&service, 0, 0, 1, &file), expected);
  if (expected != S_OK) return;

  EXPECT_EQ(session->GetMsgStoresTable(0, table.Out()), S_OK);
  Rows stores;
  EXPECT_EQ(stores.Query(table.get(), {PR_ENTRYID}, 1), S_OK);
  if (stores.size() != 1) return;
  const SBinary& id = stores.At(0, 0).Value.bin;
  EXPECT_EQ(session->OpenMsgStore(0, id.cb, reinterpret_cast<LPENTRYID>(id.lpb), nullptr,
                                  MDB_NO_MAIL | MAPI_BEST_ACCESS, store.Out()),
            S_OK);
}

OpenStore::~OpenStore() {
  store.Reset();
  if (services) {
    EXPECT_EQ(services->DeleteMsgService(&service), S_OK);
  }
  if (session) {
    EXPECT_EQ(session->Logoff(0, 0, 0), S_OK);
  }
  Mapi().Uninitialize();
}

Com<IMAPIFolder> OpenStore::OpenTop() {
  Values top;
  EXPECT_EQ(top.Get(store.get(), {PR_IPM_SUBTREE_ENTRYID}), S_OK);
  return Open<IMAPIFolder>(BytesOf(top[0].Value.bin));
}

std::vector<std::uint8_t> OpenStore::EntryIdOf(std::uint32_t nid) const {
  std::vector<std::uint8_t> id(4);
  Values key;
  EXPECT_EQ(key.Get(store.get(), {PR_RECORD_KEY}), S_OK);
  const auto uid = BytesOf(key[0].Value.bin);
  id.insert(id.end(), uid.begin(), uid.end());
  for (int i = 0; i < 4; ++i) id.push_back(static_cast<std::uint8_t>(nid >> (8 * i)));
  return id;
}

void ProviderTest::SetUp() {
  Mapi();
  ProviderFaults::Clear();
  before_ = ProviderFaults::Count();
}

void ProviderTest::TearDown() {
  ProviderFaults::Clear();
  EXPECT_EQ(ProviderFaults::Count(), before_) << "something outlived its last reference, or was not freed";
}

void WrittenStoreTest::TearDown() {
  opened_.reset();
  DeleteFileW(path_.c_str());
  ProviderTest::TearDown();
}

OpenStore& WrittenStoreTest::Write(const vault::StoreBuilder& store) {
  wchar_t folder[MAX_PATH];
  EXPECT_GT(GetTempPathW(MAX_PATH, folder), 0u);
  path_ = std::wstring(folder) + L"provider_test.db";
  store.Write(std::filesystem::path(path_));
  opened_ = std::make_unique<OpenStore>(path_);
  return *opened_;
}

std::wstring SampleFolder() {
  const char* folder = getenv("HOARDEX_SAMPLES");
  if (!folder || !*folder) return {};
  std::wstring path = Wide(folder);
  if (path[0] == L'/') path = L"Z:" + path;
  return GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES ? std::wstring() : path;
}

std::wstring Sample(const std::wstring& name) {
  return SampleFolder() + L"\\" + name;
}

std::wstring Wide(std::string_view utf8) {
  const int size = static_cast<int>(utf8.size());
  std::wstring wide(static_cast<std::size_t>(MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, nullptr, 0)), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, wide.data(), static_cast<int>(wide.size()));
  return wide;
}

std::vector<std::uint8_t> BytesOf(const SBinary& binary) {
  return {binary.lpb, binary.lpb + binary.cb};
}

std::vector<std::uint8_t> ReadAll(IStream* stream) {
  std::vector<std::uint8_t> bytes;
  std::uint8_t piece[5003];
  ULONG read = 0;
  do {
    if (FAILED(stream->Read(piece, sizeof piece, &read))) return {};
    bytes.insert(bytes.end(), piece, piece + read);
  } while (read);
  return bytes;
}

std::wstring BodyOf(IMessage* message) {
  Values body;
  const HRESULT result = Mapi().GetOneProp(message, PR_BODY_W, &body.values);
  if (result == S_OK) return body[0].Value.lpszW;
  if (result != static_cast<HRESULT>(MAPI_E_NOT_ENOUGH_MEMORY)) {
    EXPECT_EQ(result, static_cast<HRESULT>(MAPI_E_NOT_FOUND));
    return {};
  }
  Com<IStream> stream;
  EXPECT_EQ(message->OpenProperty(PR_BODY_W, &IID_IStream, 0, 0, stream.Out<IUnknown>()), S_OK);
  const auto bytes = ReadAll(stream.get());
  return {reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / sizeof(wchar_t)};
}

}  // namespace test
