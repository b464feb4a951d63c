#include "provider/msg/property_storage.h"

#include <cstring>
#include <cwchar>

#include "provider/strings.h"

namespace provider::msg {
namespace {

constexpr DWORD kCreate = STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
constexpr std::uint32_t kReadWrite = 6, kNoSize = 0xFFFFFFFF;
constexpr wchar_t kPropertyStream[] = L"__properties_version1.0";

void Check(HRESULT result) {
  if (FAILED(result)) Fail(result);
}

// Bytes of a value that stands in the property stream itself; 0 for one that does not.
std::size_t FixedSize(ULONG type) {
  switch (type) {
    case PT_I2:
    case PT_BOOLEAN:
      return 2;
    case PT_LONG:
    case PT_R4:
    case PT_ERROR:
      return 4;
    case PT_DOUBLE:
    case PT_CURRENCY:
    case PT_APPTIME:
    case PT_I8:
    case PT_SYSTIME:
      return 8;
    default:
      return 0;
  }
}

template <class T>
std::span<const std::uint8_t> BytesOfArray(const T* items, std::size_t count) {
  return {reinterpret_cast<const std::uint8_t*>(items), items ? count * sizeof(T) : 0};
}

// An array of values of one size as one run of bytes; nothing for other types.
std::optional<std::span<const std::uint8_t>> PackedArray(const SPropValue& value) {
  const _PV& v = value.Value;
  switch (PROP_TYPE(value.ulPropTag)) {
    case PT_MV_I2:
      return BytesOfArray(v.MVi.lpi, v.MVi.cValues);
    case PT_MV_LONG:
      return BytesOfArray(v.MVl.lpl, v.MVl.cValues);
    case PT_MV_R4:
      return BytesOfArray(v.MVflt.lpflt, v.MVflt.cValues);
    case PT_MV_DOUBLE:
      return BytesOfArray(v.MVdbl.lpdbl, v.MVdbl.cValues);
    case PT_MV_APPTIME:
      return BytesOfArray(v.MVat.lpat, v.MVat.cValues);
    case PT_MV_CURRENCY:
      return BytesOfArray(v.MVcur.lpcur, v.MVcur.cValues);
    case PT_MV_SYSTIME:
      return BytesOfArray(v.MVft.lpft, v.MVft.cValues);
    case PT_MV_I8:
      return BytesOfArray(v.MVli.lpli, v.MVli.cValues);
    case PT_MV_CLSID:
      return BytesOfArray(v.MVguid.lpguid, v.MVguid.cValues);
    default:
      return {};
  }
}

template <class T>
void Append(std::vector<std::uint8_t>& bytes, const T& value) {
  const auto* from = reinterpret_cast<const std::uint8_t*>(&value);
  bytes.insert(bytes.end(), from, from + sizeof(value));
}

Ref<IStream> CreateStream(IStorage* parent, const std::wstring& name) {
  Ref<IStream> stream;
  Check(parent->CreateStream(name.c_str(), kCreate, 0, 0, stream.Receive()));
  return stream;
}

void WriteAll(IStream* stream, std::span<const std::uint8_t> bytes) {
  ULONG written = 0;
  if (bytes.empty()) return;
  Check(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written));
  if (written != bytes.size()) Fail(STG_E_MEDIUMFULL);
}

}  // namespace

std::wstring ValueName(ULONG tag) {
  wchar_t name[32] = {};
  _snwprintf(name, std::size(name) - 1, L"__substg1.0_%08lX", tag);
  return name;
}

Ref<IStorage> CreateStorage(IStorage* parent, const std::wstring& name) {
  Ref<IStorage> storage;
  Check(parent->CreateStorage(name.c_str(), kCreate, 0, 0, storage.Receive()));
  return storage;
}

void WriteStream(IStorage* parent, const std::wstring& name, std::span<const std::uint8_t> bytes) {
  WriteAll(CreateStream(parent, name).get(), bytes);
}

ULONG PropertyStorage::Stored(ULONG tag) const {
  const ULONG many = PROP_TYPE(tag) & MV_FLAG, type = PROP_TYPE(tag) & ~static_cast<ULONG>(MV_FLAG);
  if (type != PT_UNICODE && type != PT_STRING8) return tag;
  return PROP_TAG(many | (strings_ == Strings::kUnicode ? PT_UNICODE : PT_STRING8), PROP_ID(tag));
}

std::wstring PropertyStorage::PartName(ULONG tag, ULONG part) {
  wchar_t number[16] = {};
  _snwprintf(number, std::size(number) - 1, L"-%08lX", part);
  return ValueName(tag) + number;
}

void PropertyStorage::Remove(std::uint16_t id) {
  const auto found = entries_.find(id);
  if (found == entries_.end()) return;
  Entry& entry = found->second;
  entry.stream = {};
  for (ULONG i = 0; i < entry.parts; ++i) storage_->DestroyElement(PartName(entry.tag, i).c_str());
  if (entry.stored) storage_->DestroyElement(ValueName(entry.tag).c_str());
  entries_.erase(found);
}

PropertyStorage::Entry& PropertyStorage::Put(ULONG tag) {
  const auto id = static_cast<std::uint16_t>(PROP_ID(tag));
  Remove(id);
  Entry& entry = entries_[id];
  entry.tag = tag;
  return entry;
}

void PropertyStorage::SetSize(Entry& entry, std::uint64_t size) {
  if (size > kNoSize - 8) Fail(MAPI_E_TOO_BIG);
  const auto stored = static_cast<std::uint32_t>(size);
  std::memcpy(entry.value.data(), &stored, sizeof(stored));
}

void PropertyStorage::SetBytes(ULONG tag, std::span<const std::uint8_t> bytes, std::size_t terminator) {
  Entry& entry = Put(tag);
  entry.stored = true;
  WriteStream(storage_.get(), ValueName(tag), bytes);
  SetSize(entry, bytes.size() + terminator);
}

void PropertyStorage::SetLong(ULONG tag, std::int32_t number) {
  std::memcpy(Put(tag).value.data(), &number, sizeof(number));
}

// A stream of lengths, and one of its own for each value.
template <class Count, class Each>
void PropertyStorage::SetMany(ULONG tag, ULONG count, Count&& length, Each&& bytes) {
  std::vector<std::uint8_t> lengths;
  Entry& entry = Put(tag);
  for (; entry.parts < count; ++entry.parts) {
    const auto value = bytes(entry.parts);
    length(lengths, value.size());
    WriteStream(storage_.get(), PartName(tag, entry.parts), value);
  }
  entry.stored = true;
  WriteStream(storage_.get(), ValueName(tag), lengths);
  SetSize(entry, lengths.size());
}

void PropertyStorage::SetStrings(const SPropValue& value) {
  const bool wide = PROP_TYPE(value.ulPropTag) == PT_MV_UNICODE;
  const ULONG count = wide ? value.Value.MVszW.cValues : value.Value.MVszA.cValues;
  std::vector<std::u16string> texts;
  for (ULONG i = 0; i < count; ++i)
    texts.push_back(wide ? FromCaller(value.Value.MVszW.lppszW[i], MAPI_UNICODE)
                         : FromCaller(value.Value.MVszA.lppszA[i], 0));
  const auto bytes = [&](ULONG i) {
    // With their terminators, which their lengths count.
    std::vector<std::uint8_t> stored;
    if (strings_ == Strings::kUnicode) {
      const auto text = BytesOf(texts[i]);
      stored.assign(text.begin(), text.end());
      stored.insert(stored.end(), 2, 0);
    } else {
      const std::string text = Narrow(texts[i]);
      stored.assign(text.begin(), text.end());
      stored.push_back(0);
    }
    return stored;
  };
  SetMany(
      Stored(value.ulPropTag), count,
      [](std::vector<std::uint8_t>& lengths, std::size_t size) { Append(lengths, static_cast<std::uint32_t>(size)); },
      bytes);
}

bool PropertyStorage::Set(const SPropValue& value) {
  const ULONG tag = value.ulPropTag, type = PROP_TYPE(tag);
  const _PV& v = value.Value;
  if (const std::size_t size = FixedSize(type)) {
    std::memcpy(Put(tag).value.data(), &v, size);
    return true;
  }
  if (const auto packed = PackedArray(value)) {
    SetBytes(tag, *packed, 0);
    return true;
  }
  switch (type) {
    case PT_UNICODE:
    case PT_STRING8: {
      const std::u16string text = type == PT_UNICODE ? FromCaller(v.lpszW, MAPI_UNICODE) : FromCaller(v.lpszA, 0);
      if (text.empty()) {
        Remove(static_cast<std::uint16_t>(PROP_ID(tag)));
      } else if (strings_ == Strings::kUnicode) {
        SetBytes(Stored(tag), BytesOf(text), 2);
      } else {
        const std::string narrow = Narrow(text);
        SetBytes(Stored(tag), BytesOfArray(narrow.data(), narrow.size()), 1);
      }
      return true;
    }
    case PT_BINARY:
      SetBytes(tag, BytesOfArray(v.bin.lpb, v.bin.cb), 0);
      return true;
    case PT_CLSID:
      SetBytes(tag, BytesOfArray(v.lpguid, 1), 0);
      return true;
    case PT_MV_UNICODE:
    case PT_MV_STRING8:
      SetStrings(value);
      return true;
    case PT_MV_BINARY:
      SetMany(
          tag, v.MVbin.cValues,
          [](std::vector<std::uint8_t>& lengths, std::size_t size) {
            Append(lengths, static_cast<std::uint64_t>(size));
          },
          [&](ULONG i) { return BytesOfArray(v.MVbin.lpbin[i].lpb, v.MVbin.lpbin[i].cb); });
      return true;
    default:
      return false;
  }
}

Ref<IStream> PropertyStorage::CreateValue(ULONG tag) {
  const ULONG stored = Stored(tag);
  Entry& entry = Put(stored);
  entry.stored = true;
  Ref<IStream> stream = CreateStream(storage_.get(), ValueName(stored));
  entry.stream = stream;
  return stream;
}

Ref<IStorage> PropertyStorage::CreateObject(ULONG tag, ObjectKind kind) {
  Entry& entry = Put(tag);
  entry.stored = true;
  Ref<IStorage> object = CreateStorage(storage_.get(), ValueName(tag));
  std::memcpy(entry.value.data(), &kNoSize, sizeof(kNoSize));
  std::memcpy(entry.value.data() + sizeof(kNoSize), &kind, sizeof(kind));
  return object;
}

void PropertyStorage::Write(std::span<const std::uint8_t> header) {
  std::vector<std::uint8_t> bytes(header.begin(), header.end());
  for (auto at = entries_.begin(); at != entries_.end();) {
    Entry& entry = at->second;
    if (entry.stream) {
      STATSTG stat = {};
      Check(entry.stream->Stat(&stat, STATFLAG_NONAME));
      const ULONG type = PROP_TYPE(entry.tag);
      const std::size_t terminator = type == PT_UNICODE ? 2 : type == PT_STRING8 ? 1 : 0;
      entry.stream = {};
      if (terminator && !stat.cbSize.QuadPart) {
        storage_->DestroyElement(ValueName(entry.tag).c_str());
        at = entries_.erase(at);
        continue;
      }
      SetSize(entry, stat.cbSize.QuadPart + terminator);
    }
    Append(bytes, static_cast<std::uint32_t>(entry.tag));
    Append(bytes, kReadWrite);
    bytes.insert(bytes.end(), entry.value.begin(), entry.value.end());
    ++at;
  }
  WriteStream(storage_.get(), kPropertyStream, bytes);
}

}  // namespace provider::msg
