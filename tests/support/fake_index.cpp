#include "tests/support/fake_index.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace {

constexpr CLSID kManagerClass = {0x7D096C5F, 0xAC08, 0x4F1F, {0xBE, 0xB7, 0x5C, 0x22, 0xC5, 0x17, 0xCE, 0x39}};
constexpr CLSID kRootClass = {0x30766BD2, 0xEA1C, 0x4F28, {0xBF, 0x27, 0x0B, 0x44, 0xE2, 0xF6, 0x8D, 0xB7}};
constexpr IID SearchIid(BYTE last) {
  return {0xAB310581, 0xAC80, 0x11D1, {0x8D, 0xF3, 0x00, 0xC0, 0x4F, 0xB6, 0xEF, last}};
}
constexpr IID kManager = SearchIid(0x69), kCatalog = SearchIid(0x50), kScope = SearchIid(0x55),
              kEnumRoots = SearchIid(0x52);
constexpr IID kRoot = {0x04C18CCF, 0x1F57, 0x4CBD, {0x88, 0xCC, 0x39, 0x00, 0xF5, 0x19, 0x5C, 0xE3}};
constexpr IID kSink = {0xA2FFDF9B, 0x4758, 0x4F84, {0xB7, 0x29, 0xDF, 0x81, 0xA1, 0xA0, 0x61, 0x2F}};

std::atomic<long> g_live = 0;

// Arguments as the calling convention passes them: eight bytes each, of which smaller ones use the lower part.
using Arguments = std::array<ULONG_PTR, 8>;

std::string Narrow(ULONG_PTR text) {
  const std::wstring wide(text ? reinterpret_cast<const wchar_t*>(text) : L"<null>");
  return std::string(wide.begin(), wide.end());
}

}  // namespace

struct Method {
  const char* name;
  const char* arguments;  // s string, d 32-bit number, others are left out
  std::function<HRESULT(const Arguments&)> run;
};

// An object whose first word is its table of functions, as COM has it.
class FakeObject {
  const void* const* table_ = Table();  // first

 public:
  FakeObject(FakeIndex& index, const char* name, const IID& iid, std::map<int, Method> methods)
      : index_(index), name_(name), iid_(iid), methods_(std::move(methods)) {
    ++g_live;
  }

  IUnknown* Unknown() { return reinterpret_cast<IUnknown*>(this); }

  static HRESULT STDMETHODCALLTYPE QueryInterface(FakeObject* self, const IID* iid, void** object) {
    if (*iid == IID_IClientSecurity && self->security) return QueryInterface(self->security, iid, object);
    const bool known = *iid == IID_IUnknown || *iid == self->iid_;
    *object = known ? self : nullptr;
    return known ? (AddRef(self), S_OK) : E_NOINTERFACE;
  }
  static ULONG STDMETHODCALLTYPE AddRef(FakeObject* self) { return ++self->references_; }
  static ULONG STDMETHODCALLTYPE Release(FakeObject* self) {
    const ULONG left = --self->references_;
    if (!left) delete self;
    return left;
  }
  template <int kSlot>
  static HRESULT STDMETHODCALLTYPE Call(FakeObject* self, ULONG_PTR a, ULONG_PTR b, ULONG_PTR c, ULONG_PTR d,
                                        ULONG_PTR e, ULONG_PTR f, ULONG_PTR g, ULONG_PTR h) {
    return self->Answer(kSlot, {a, b, c, d, e, f, g, h});
  }
  // Notes the call; its fault, or what the method does.
  static HRESULT Noted(FakeIndex& index, const std::string& name, const std::string& arguments,
                       const std::function<HRESULT()>& run) {
    index.calls.push_back(name + "(" + arguments + ")");
    const auto fault = index.faults.find(name);
    if (fault != index.faults.end()) return fault->second;
    return run ? run() : S_OK;
  }

 private:
  ~FakeObject() {
    if (security) Release(security);
    --g_live;
  }
  HRESULT Answer(int slot, const Arguments& arguments) {
    const auto method = methods_.find(slot);
    if (method == methods_.end()) {
      index_.calls.push_back(name_ + " slot " + std::to_string(slot));
      return E_NOTIMPL;
    }
    const auto& [name, kinds, run] = method->second;
    std::string text;
    for (size_t i = 0; kinds[i]; ++i) {
      if (kinds[i] != 's' && kinds[i] != 'd') continue;
      if (!text.empty()) text += ", ";
      text += kinds[i] == 's' ? Narrow(arguments[i]) : std::to_string(static_cast<int>(arguments[i]));
    }
    return Noted(index_, name_ + "::" + name, text, [&, &run = run] { return run ? run(arguments) : S_OK; });
  }
  template <int... kSlots>
  static std::array<const void*, 32> MakeTable(std::integer_sequence<int, kSlots...>) {
    return {reinterpret_cast<const void*>(&QueryInterface), reinterpret_cast<const void*>(&AddRef),
            reinterpret_cast<const void*>(&Release), reinterpret_cast<const void*>(&Call<kSlots + 3>)...};
  }
  static const void* const* Table() {
    static const auto table = MakeTable(std::make_integer_sequence<int, 29>());
    return table.data();
  }

  FakeIndex& index_;
  std::string name_;
  IID iid_;
  std::map<int, Method> methods_;
  std::atomic<ULONG> references_ = 1;

 public:
  std::wstring url;                // of a root
  FakeObject* security = nullptr;  // of a root: what answers for its IClientSecurity
};

namespace {

HRESULT Give(ULONG_PTR out, FakeObject* object) {
  *reinterpret_cast<void**>(out) = object;
  return S_OK;
}

FakeObject* MakeNewRoot(FakeIndex& index) {
  // Its methods work on the object itself, which therefore is made first.
  auto owner = std::make_shared<FakeObject*>(nullptr);
  auto* root = new FakeObject(index, "ISearchRoot", kRoot,
                              {{5,
                                {"put_RootURL", "s",
                                 [owner](const Arguments& in) {
                                   (*owner)->url = reinterpret_cast<const wchar_t*>(in[0]);
                                   return S_OK;
                                 }}},
                               {7, {"put_IsHierarchical", "d", nullptr}},
                               {9, {"put_ProvidesNotifications", "d", nullptr}},
                               {11, {"put_UseNotificationsOnly", "d", nullptr}},
                               {17, {"put_FollowDirectories", "d", nullptr}},
                               {19, {"put_AuthenticationType", "d", nullptr}}});
  *owner = root;
  root->security =
      new FakeObject(index, "IClientSecurity", IID_IClientSecurity, {{4, {"SetBlanket", "-ddsddsd", nullptr}}});
  return root;
}

FakeObject* MakeListedRoot(FakeIndex& index, const std::wstring& url) {
  return new FakeObject(index, "ISearchRoot", kRoot,
                        {{6, {"get_RootURL", "", [url](const Arguments& out) {
                                auto* text = static_cast<wchar_t*>(CoTaskMemAlloc((url.size() + 1) * sizeof(wchar_t)));
                                wcscpy(text, url.c_str());
                                *reinterpret_cast<wchar_t**>(out[0]) = text;
                                return S_OK;
                              }}}});
}

// Walks the living list by position: one that is taken away moves the others up.
FakeObject* MakeEnumerator(FakeIndex& index) {
  auto position = std::make_shared<size_t>(0);
  return new FakeObject(index, "IEnumSearchRoots", kEnumRoots,
                        {{3, {"Next", "d", [&index, position](const Arguments& in) {
                                const bool more = *position < index.roots.size();
                                Give(in[1], more ? MakeListedRoot(index, index.roots[(*position)++]) : nullptr);
                                *reinterpret_cast<ULONG*>(in[2]) = more;
                                return more ? S_OK : S_FALSE;
                              }}}});
}

FakeObject* MakeScope(FakeIndex& index) {
  return new FakeObject(index, "ISearchCrawlScopeManager", kScope,
                        {{3, {"AddDefaultScopeRule", "sdd", nullptr}},
                         {4,
                          {"AddRoot", "",
                           [&index](const Arguments& in) {
                             index.roots.push_back(reinterpret_cast<FakeObject*>(in[0])->url);
                             return S_OK;
                           }}},
                         {5,
                          {"RemoveRoot", "s",
                           [&index](const Arguments& in) {
                             return std::erase(index.roots, reinterpret_cast<const wchar_t*>(in[0])) ? S_OK : S_FALSE;
                           }}},
                         {6,
                          {"EnumerateRoots", "",
                           [&index](const Arguments& out) {
                             // Without roots there is no enumerator.
                             if (index.roots.empty()) return Give(out[0], nullptr), S_FALSE;
                             return Give(out[0], MakeEnumerator(index));
                           }}},
                         {7, {"AddHierarchicalScope", "sddd", nullptr}},
                         {16, {"SaveAll", "", nullptr}}});
}

FakeObject* MakeSink(FakeIndex& index) {
  struct Change {
    DWORD kind;
    const wchar_t* url;
    const wchar_t* old_url;
    int priority;
  };
  return new FakeObject(index, "ISearchPersistentItemsChangedSink", kSink,
                        {{3, {"StartedMonitoringScope", "s", nullptr}},
                         {4, {"StoppedMonitoringScope", "s", nullptr}},
                         {5, {"OnItemsChanged", "d", [&index](const Arguments& in) {
                                const auto& change = *reinterpret_cast<const Change*>(in[1]);
                                index.calls.push_back("change " + std::to_string(change.kind) + " " +
                                                      Narrow(reinterpret_cast<ULONG_PTR>(change.url)) + " " +
                                                      Narrow(reinterpret_cast<ULONG_PTR>(change.old_url)) + " " +
                                                      std::to_string(change.priority));
                                *reinterpret_cast<HRESULT*>(in[2]) = index.completion;
                                return S_OK;
                              }}}});
}

FakeObject* MakeCatalog(FakeIndex& index) {
  return new FakeObject(
      index, "ISearchCatalogManager", kCatalog,
      {{19,
        {"GetPersistentItemsChangedSink", "",
         [&index](const Arguments& out) { return Give(out[0], MakeSink(index)); }}},
       {28, {"GetCrawlScopeManager", "", [&index](const Arguments& out) { return Give(out[0], MakeScope(index)); }}}});
}

FakeObject* MakeManager(FakeIndex& index) {
  return new FakeObject(
      index, "ISearchManager", kManager,
      {{10, {"GetCatalog", "s", [&index](const Arguments& out) { return Give(out[1], MakeCatalog(index)); }}}});
}

// A class object of the calling apartment.
DWORD RegisterClass(FakeIndex& index, const CLSID& clsid, const char* name, FakeObject* (*make)(FakeIndex&)) {
  auto* factory = new FakeObject(index, name, IID_IClassFactory,
                                 {{3,
                                   {"CreateInstance", "",
                                    [&index, make](const Arguments& in) {
                                      FakeObject* object = make(index);
                                      const HRESULT hr = FakeObject::QueryInterface(
                                          object, reinterpret_cast<const IID*>(in[1]), reinterpret_cast<void**>(in[2]));
                                      FakeObject::Release(object);
                                      return hr;
                                    }}},
                                  {4, {"LockServer", "d", nullptr}}});
  DWORD cookie = 0;
  if (FAILED(CoRegisterClassObject(clsid, factory->Unknown(), CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookie)))
    throw std::runtime_error("no class object");
  FakeObject::Release(factory);
  return cookie;
}

}  // namespace

FakeIndex::FakeIndex() {
  manager_ = RegisterClass(*this, kManagerClass, "CSearchManager", MakeManager);
  root_ = RegisterClass(*this, kRootClass, "CSearchRoot", MakeNewRoot);
}
FakeIndex::~FakeIndex() {
  CoRevokeClassObject(manager_);
  CoRevokeClassObject(root_);
}
long FakeIndex::LiveObjects() {
  return g_live;
}
