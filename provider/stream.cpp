#include "provider/stream.h"
#include "platform/critical_section.h"

#include <algorithm>
#include <cstring>

namespace provider {
namespace {

class Stream : public Object<IStream> {
 public:
  explicit Stream(Value value) : Object(Kind::kStream), value_(std::move(value)), size_(value_.size()) {}

  STDMETHODIMP Read(void* to, ULONG size, ULONG* read) override {
    if (read) *read = 0;
    return Guarded("IStream::Read", [&] {
      Require(to != nullptr, STG_E_INVALIDPOINTER);
      const std::scoped_lock lock(lock_);
      const ULONG copied = ReadAtPosition({static_cast<std::uint8_t*>(to), size});
      if (read) *read = copied;
      return copied == size ? S_OK : S_FALSE;
    });
  }
  STDMETHODIMP Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* position) override {
    return Guarded("IStream::Seek", [&] {
      const std::scoped_lock lock(lock_);
      const std::uint64_t base = origin == STREAM_SEEK_SET ? 0 : origin == STREAM_SEEK_CUR ? position_ : size_;
      Require(origin <= STREAM_SEEK_END, STG_E_INVALIDFUNCTION);
      const auto distance = static_cast<std::uint64_t>(move.QuadPart < 0 ? -(move.QuadPart + 1) : move.QuadPart);
      if (move.QuadPart < 0) {
        Require(distance < base, STG_E_INVALIDFUNCTION);
        position_ = base - distance - 1;
      } else {
        Require(distance <= ~base, STG_E_INVALIDFUNCTION);
        position_ = base + distance;
      }
      if (position) position->QuadPart = position_;
    });
  }
  STDMETHODIMP CopyTo(IStream* to, ULARGE_INTEGER size, ULARGE_INTEGER* read, ULARGE_INTEGER* written) override {
    if (Has(kHoardexMapiCopiesUncounted)) read = written = nullptr;
    if (read) read->QuadPart = 0;
    if (written) written->QuadPart = 0;
    return Guarded("IStream::CopyTo", [&]() -> HRESULT {
      Require(to != nullptr, STG_E_INVALIDPOINTER);
      const std::scoped_lock lock(lock_);
      constexpr std::size_t kPiece = 64 * 1024;
      std::vector<std::uint8_t> piece(static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, size_)));
      std::uint64_t left = size.QuadPart, in = 0, out = 0;
      HRESULT result = S_OK;
      while (left && result == S_OK) {
        const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(left, piece.size()));
        const ULONG copied = ReadAtPosition({piece.data(), wanted});
        if (!copied) break;
        ULONG put = 0;
        result = to->Write(piece.data(), copied, &put);
        in += copied, out += put, left -= copied;
      }
      if (read) read->QuadPart = in;
      if (written) written->QuadPart = out;
      return result;
    });
  }
  STDMETHODIMP Stat(STATSTG* stat, DWORD) override {
    return Guarded("IStream::Stat", [&] {
      Require(stat != nullptr, STG_E_INVALIDPOINTER);
      *stat = {};
      stat->type = STGTY_STREAM;
      stat->cbSize.QuadPart = size_;
      stat->grfMode = STGM_READ;
    });
  }
  STDMETHODIMP Write(const void*, ULONG, ULONG* written) override {
    return Answer("IStream::Write", STG_E_ACCESSDENIED, written);
  }
  STDMETHODIMP SetSize(ULARGE_INTEGER) override { return Answer("IStream::SetSize", STG_E_ACCESSDENIED); }
  STDMETHODIMP Commit(DWORD) override { return Answer("IStream::Commit", S_OK); }
  STDMETHODIMP Revert() override { return Answer("IStream::Revert", S_OK); }
  STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return Answer("IStream::LockRegion", STG_E_INVALIDFUNCTION);
  }
  STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return Answer("IStream::UnlockRegion", STG_E_INVALIDFUNCTION);
  }
  STDMETHODIMP Clone(IStream** clone) override { return Answer("IStream::Clone", E_NOTIMPL, clone); }

 protected:
  bool Implements(REFIID iid) const override {
    return iid == IID_IStream || iid == IID_ISequentialStream || iid == IID_IStreamDocfile;
  }

 private:
  ULONG ReadAtPosition(std::span<std::uint8_t> to) {
    if (position_ >= size_) return 0;
    std::size_t copied = 0;
    if (value_.reader) {
      while (copied < to.size()) {
        const std::size_t got = value_.reader->ReadAt(position_ + copied, to.subspan(copied));
        if (!got) break;
        copied += got;
      }
    } else {
      copied = static_cast<std::size_t>(std::min<std::uint64_t>(to.size(), size_ - position_));
      std::memcpy(to.data(), value_.bytes.data() + position_, copied);
    }
    position_ += copied;
    return static_cast<ULONG>(copied);
  }

  CriticalSection lock_;
  Value value_;
  std::uint64_t size_;
  std::uint64_t position_ = 0;
};

}  // namespace

Ref<IStream> MakeStream(Value value) {
  // A short value's bytes belong to its object, which the stream may outlive.
  if (!value.reader && !value.owner) return MakeStream(value.Read());
  return Ref<IStream>(new Stream(std::move(value)));
}

Ref<IStream> MakeStream(std::vector<std::uint8_t> bytes) {
  return Ref<IStream>(new Stream(Value::Owned(0, std::move(bytes))));
}

Ref<IStorage> MakeStorage(const std::vector<std::uint8_t>& bytes) {
  const HGLOBAL memory = GlobalAlloc(GMEM_MOVEABLE, std::max<std::size_t>(bytes.size(), 1));
  if (!memory) throw std::bad_alloc();
  void* to = GlobalLock(memory);
  std::memcpy(to, bytes.data(), bytes.size());
  GlobalUnlock(memory);
  Ref<ILockBytes> lock_bytes;
  if (const HRESULT result = CreateILockBytesOnHGlobal(memory, TRUE, lock_bytes.Receive()); result != S_OK) {
    GlobalFree(memory);
    Fail(result);
  }
  // The allocation may be larger than what was asked for.
  ULARGE_INTEGER size;
  size.QuadPart = bytes.size();
  if (const HRESULT result = lock_bytes->SetSize(size); FAILED(result)) Fail(result);
  Ref<IStorage> storage;
  const HRESULT result = StgOpenStorageOnILockBytes(lock_bytes.get(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE,
                                                    nullptr, 0, storage.Receive());
  if (FAILED(result)) Fail(MAPI_E_CORRUPT_DATA, "The attached object is not a compound file");
  return storage;
}

}  // namespace provider
