// The functions of a MAPI library that work here. HoardexMapi.def gives them their public names; those that take a
// string in a form that the headers get wrong are declared here as they really are.
#include <atomic>
#include <cstring>

#include "provider/memory.h"
#include "provider/object.h"
#include "provider/profile.h"
#include "provider/property.h"
#include "provider/session.h"

namespace provider {
namespace {

std::atomic<long> initialized{0};

// For functions outside the objects: the same boundary.
template <class Body, class... Out>
HRESULT Guarded(const char* function, Body&& body, Out*... outs) noexcept {
  ((outs ? void(*outs = {}) : void()), ...);
  try {
    const Call call(function);
    return Run(body, call);
  } catch (...) {
    return CurrentFailure().code;
  }
}
void FreeRows(LPSRowSet rows) {
  for (ULONG i = 0; rows && i < rows->cRows; ++i) FreeBuffer(rows->aRow[i].lpProps);
  FreeBuffer(rows);
}

// For those that cannot fail, or must do their work whatever becomes of the call.
template <class Body>
auto Always(const char* function, Body&& body) noexcept {
  Guarded(function, [] {});
  return body();
}

}  // namespace
}  // namespace provider

using namespace provider;

extern "C" {

SCODE WINAPI HxAllocateBuffer(ULONG size, LPVOID* buffer) {
  return Guarded(
      "MAPIAllocateBuffer", [&] { return AllocateBuffer(size, buffer); }, buffer);
}

SCODE WINAPI HxAllocateMore(ULONG size, LPVOID parent, LPVOID* buffer) {
  return Guarded(
      "MAPIAllocateMore", [&] { return AllocateMore(size, parent, buffer); }, buffer);
}

ULONG WINAPI HxFreeBuffer(LPVOID buffer) {
  return Always("MAPIFreeBuffer", [&] { return FreeBuffer(buffer); });
}

LPMALLOC WINAPI HxGetDefaultMalloc() {
  LPMALLOC allocator = nullptr;
  return Guarded("MAPIGetDefaultMalloc", [&] { return CoGetMalloc(1, &allocator); }) == S_OK ? allocator : nullptr;
}

HRESULT WINAPI HxInitialize(LPVOID) {
  return Guarded("MAPIInitialize", [] {
    ++initialized;
    CountLive(Kind::kInitialization, 1);
  });
}

void WINAPI HxUninitialize() {
  // One call too many must not make the next MAPIInitialize count for nothing.
  Always("MAPIUninitialize", [] {
    long count = initialized;
    while (count > 0 && !initialized.compare_exchange_weak(count, count - 1)) {
    }
    if (count > 0) CountLive(Kind::kInitialization, -1);
  });
}

HRESULT WINAPI HxLogonEx(ULONG_PTR, LPTSTR name, LPTSTR, ULONG flags, LPMAPISESSION* session) {
  return Guarded(
      "MAPILogonEx",
      [&] {
        Require(session != nullptr, MAPI_E_INVALID_PARAMETER);
        Require(initialized > 0, MAPI_E_NOT_INITIALIZED);
        std::u16string wanted = FromCaller(name, flags);
        if (wanted.empty() && (flags & MAPI_USE_DEFAULT)) wanted = profiles::Default();
        Require(!wanted.empty(), MAPI_E_LOGON_FAILED);
        auto profile = profiles::Open(wanted);
        Require(profile != nullptr, MAPI_E_LOGON_FAILED);
        *session = MakeSession(std::move(profile)).Detach();
      },
      session);
}

HRESULT WINAPI HxAdminProfiles(ULONG, LPPROFADMIN* admin) {
  return Guarded(
      "MAPIAdminProfiles",
      [&] {
        Require(admin != nullptr, MAPI_E_INVALID_PARAMETER);
        Require(initialized > 0, MAPI_E_NOT_INITIALIZED);
        *admin = MakeProfileAdmin().Detach();
      },
      admin);
}

HRESULT WINAPI HxGetOneProp(LPMAPIPROP object, ULONG tag, LPSPropValue* value) {
  return Guarded(
      "HrGetOneProp",
      [&] {
        Require(object && value, MAPI_E_INVALID_PARAMETER);
        SPropTagArray tags{1, {tag}};
        ULONG count = 0;
        LPSPropValue got = nullptr;
        const HRESULT result = object->GetProps(&tags, 0, &count, &got);
        if (FAILED(result)) Fail(result);
        if (!got || !count) {
          FreeBuffer(got);
          Fail(MAPI_E_NOT_FOUND);
        }
        if (PROP_TYPE(got->ulPropTag) == PT_ERROR) {
          const SCODE error = got->Value.err;
          FreeBuffer(got);
          Fail(error);
        }
        *value = got;
      },
      value);
}

HRESULT WINAPI HxSetOneProp(LPMAPIPROP object, LPSPropValue value) {
  return Guarded("HrSetOneProp", [&] {
    Require(object && value, MAPI_E_INVALID_PARAMETER);
    LPSPropProblemArray problems = nullptr;
    HRESULT result = object->SetProps(1, value, &problems);
    if (problems) result = problems->aProblem[0].scode;
    FreeBuffer(problems);
    if (FAILED(result)) Fail(result);
  });
}

void WINAPI HxFreeProws(LPSRowSet rows) {
  Always("FreeProws", [&] { FreeRows(rows); });
}

void WINAPI HxFreePadrlist(LPADRLIST list) {
  static_assert(sizeof(ADRENTRY) == sizeof(SRow) && offsetof(ADRENTRY, rgPropVals) == offsetof(SRow, lpProps));
  Always("FreePadrlist", [&] { FreeRows(reinterpret_cast<LPSRowSet>(list)); });
}

HRESULT WINAPI HxQueryAllRows(LPMAPITABLE table, LPSPropTagArray columns, LPSRestriction restriction,
                              LPSSortOrderSet order, LONG most, LPSRowSet* rows) {
  return Guarded(
      "HrQueryAllRows",
      [&] {
        Require(table && rows, MAPI_E_INVALID_PARAMETER);
        const auto check = [](HRESULT result) {
          if (FAILED(result)) Fail(result);
        };
        if (columns) check(table->SetColumns(columns, TBL_BATCH));
        if (restriction) check(table->Restrict(restriction, TBL_BATCH));
        if (order) check(table->SortTable(order, TBL_BATCH));
        check(table->SeekRow(BOOKMARK_BEGINNING, 0, nullptr));
        ULONG count = 0;
        check(table->GetRowCount(0, &count));
        if (most > 0 && count > static_cast<ULONG>(most)) Fail(MAPI_E_TABLE_TOO_BIG);
        check(table->QueryRows(static_cast<LONG>(count), 0, rows));
      },
      rows);
}

// Narrow characters always, whatever the header says.
void WINAPI HxHexFromBin(LPBYTE bytes, int count, char* text) {
  Always("HexFromBin", [&] {
    constexpr char kDigits[] = "0123456789ABCDEF";
    if (!text) return;
    if (!bytes && count > 0) NoteMisuse();
    for (int i = 0; bytes && i < count; ++i) {
      *text++ = kDigits[bytes[i] >> 4];
      *text++ = kDigits[bytes[i] & 15];
    }
    *text = 0;
  });
}

LPSPropValue WINAPI HxFindProp(LPSPropValue values, ULONG count, ULONG tag) {
  return Always("PpropFindProp", [&]() -> LPSPropValue {
    for (ULONG i = 0; values && i < count; ++i) {
      const bool any_type = PROP_TYPE(tag) == PT_UNSPECIFIED && PROP_ID(tag) == PROP_ID(values[i].ulPropTag);
      if (any_type || values[i].ulPropTag == tag) return values + i;
    }
    return nullptr;
  });
}

LONG WINAPI HxCompareProp(LPSPropValue a, LPSPropValue b) {
  return Always("LPropCompareProp", [&] { return a && b ? CompareValues(*a, *b) : 0; });
}

ULONG WINAPI HxRelease(LPVOID object) {
  return Always("UlRelease", [&] { return object ? static_cast<IUnknown*>(object)->Release() : 0; });
}

}  // extern "C"
