#include "winprops/Variants.h"

#include <objbase.h>

#include <cstring>

namespace winprops {
namespace {

constexpr HRESULT kBadData = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
constexpr HRESULT kNotSupported = HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);

// Bytes of a value that lies in the variant itself; 0 for what lies elsewhere.
std::size_t FixedSize(VARTYPE type) {
  switch (type) {
    case VT_I1:
    case VT_UI1:
      return 1;
    case VT_I2:
    case VT_UI2:
    case VT_BOOL:
      return 2;
    case VT_I4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
    case VT_R4:
    case VT_ERROR:
      return 4;
    case VT_I8:
    case VT_UI8:
    case VT_R8:
    case VT_CY:
    case VT_DATE:
    case VT_FILETIME:
      return 8;
    default:
      return 0;
  }
}

void Append(std::vector<std::byte>& data, const void* bytes, std::size_t size) {
  const auto* from = static_cast<const std::byte*>(bytes);
  data.insert(data.end(), from, from + size);
}
void Pad(std::vector<std::byte>& data) {
  while (data.size() % 4) data.push_back(std::byte{0});
}
void AppendString(std::vector<std::byte>& data, const wchar_t* text) {
  const auto count = static_cast<std::uint32_t>(wcslen(text) + 1);
  Append(data, &count, sizeof(count));
  Append(data, text, count * sizeof(wchar_t));
  Pad(data);
}

template <class T>
T* Allocate(std::size_t count) {
  void* block = CoTaskMemAlloc(count * sizeof(T));
  if (!block) throw std::bad_alloc();
  memset(block, 0, count * sizeof(T));
  return static_cast<T*>(block);
}

// Takes parts off the front of a value's data.
class Reader {
 public:
  explicit Reader(std::span<const std::byte> rest) : rest_(rest) {}
  bool Count(std::uint32_t& count) { return Copy(&count, sizeof(count)); }
  bool Copy(void* to, std::size_t size) {
    if (rest_.size() < size) return false;
    memcpy(to, rest_.data(), size);
    rest_ = rest_.subspan(size);
    return true;
  }
  // Characters with their terminator.
  bool String(LPWSTR& text) {
    std::uint32_t count = 0;
    if (!Count(count) || !count || count > rest_.size() / sizeof(wchar_t)) return false;
    const std::size_t bytes = count * sizeof(wchar_t);
    text = Allocate<wchar_t>(count + 1);
    memcpy(text, rest_.data(), bytes);
    rest_ = rest_.subspan(std::min(rest_.size(), (bytes + 3) / 4 * 4));
    return true;
  }
  std::size_t left() const { return rest_.size(); }

 private:
  std::span<const std::byte> rest_;
};

bool ReadStrings(Reader& in, OwnedVariant& to) {
  std::uint32_t count = 0;
  if (!in.Count(count) || count > in.left() / 4) return false;
  to.vt = VT_VECTOR | VT_LPWSTR;
  to.calpwstr.pElems = Allocate<LPWSTR>(std::size_t{count} + 1);
  for (to.calpwstr.cElems = 0; to.calpwstr.cElems < count; ++to.calpwstr.cElems)
    if (!in.String(to.calpwstr.pElems[to.calpwstr.cElems])) return false;
  return true;
}

}  // namespace

HRESULT ToVariant(const Value& value, OwnedVariant& to) {
  Reader in(value.data);
  bool good = false;
  if (const std::size_t size = FixedSize(value.type)) {
    good = in.Copy(&to.uhVal, size);
    if (good) to.vt = value.type;
    return good ? S_OK : kBadData;
  }
  switch (value.type) {
    case VT_EMPTY:
    case VT_NULL:
      to.vt = value.type;
      good = true;
      break;
    case VT_LPWSTR: {
      LPWSTR text = nullptr;
      good = in.String(text);
      if (good) {
        to.vt = VT_LPWSTR;
        to.pwszVal = text;
      }
      break;
    }
    case VT_CLSID:
      to.puuid = Allocate<GUID>(1);
      to.vt = VT_CLSID;
      good = in.Copy(to.puuid, sizeof(GUID));
      break;
    case VT_BLOB: {
      std::uint32_t size = 0;
      good = in.Count(size) && size <= in.left();
      if (!good) break;
      to.blob.pBlobData = Allocate<BYTE>(std::size_t{size} + 1);
      to.blob.cbSize = size;
      to.vt = VT_BLOB;
      in.Copy(to.blob.pBlobData, size);
      break;
    }
    case VT_VECTOR | VT_LPWSTR:
      good = ReadStrings(in, to);
      break;
    default:
      return kNotSupported;
  }
  return good ? S_OK : kBadData;
}

HRESULT FromVariant(const PROPVARIANT& value, Value& to) {
  to.type = value.vt;
  if (const std::size_t size = FixedSize(value.vt)) {
    Append(to.data, &value.uhVal, size);
    Pad(to.data);
    return S_OK;
  }
  switch (value.vt) {
    case VT_EMPTY:
    case VT_NULL:
      return S_OK;
    case VT_LPWSTR:
      AppendString(to.data, value.pwszVal ? value.pwszVal : L"");
      return S_OK;
    case VT_CLSID:
      Append(to.data, value.puuid, sizeof(GUID));
      return S_OK;
    case VT_BLOB: {
      const auto size = static_cast<std::uint32_t>(value.blob.cbSize);
      Append(to.data, &size, sizeof(size));
      Append(to.data, value.blob.pBlobData, size);
      Pad(to.data);
      return S_OK;
    }
    case VT_VECTOR | VT_LPWSTR: {
      const auto count = static_cast<std::uint32_t>(value.calpwstr.cElems);
      Append(to.data, &count, sizeof(count));
      for (std::uint32_t i = 0; i < count; ++i) AppendString(to.data, value.calpwstr.pElems[i]);
      return S_OK;
    }
    default:
      return kNotSupported;
  }
}

}  // namespace winprops
