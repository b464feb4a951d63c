#include "provider/object.h"

#include <cassert>
#include <cstring>
#include <filesystem>
#include <new>

#include "provider/memory.h"
#include "provider/strings.h"
#include "vault/error.h"

namespace provider {
namespace {

struct Translation {
  vault::ErrorCode from;
  HRESULT to;
};
constexpr Translation kTranslations[] = {
    {vault::ErrorCode::kCannotOpen, MAPI_E_NOT_FOUND},
    {vault::ErrorCode::kNotAStore, MAPI_E_CORRUPT_STORE},
    {vault::ErrorCode::kHeaderChecksum, MAPI_E_CORRUPT_STORE},
    {vault::ErrorCode::kUnsupportedVersion, MAPI_E_VERSION},
    {vault::ErrorCode::kBadHeader, MAPI_E_CORRUPT_STORE},
    {vault::ErrorCode::kNotFound, MAPI_E_NOT_FOUND},
    {vault::ErrorCode::kLimit, MAPI_E_TOO_COMPLEX},
};

HRESULT CodeOf(vault::ErrorCode code) {
  for (const Translation& row : kTranslations)
    if (row.from == code) return row.to;
  return MAPI_E_CORRUPT_DATA;
}

}  // namespace

Failure CurrentFailure() noexcept {
  try {
    throw;
  } catch (Failure& failure) {
    return std::move(failure);
  } catch (const vault::Error& error) {
    return {CodeOf(error.code()), error.what()};
  } catch (const std::bad_alloc&) {
    return {MAPI_E_NOT_ENOUGH_MEMORY, {}};
  } catch (const std::length_error&) {
    return {MAPI_E_NOT_ENOUGH_MEMORY, {}};
  } catch (const std::exception& error) {
    return {MAPI_E_CALL_FAILED, error.what()};
  } catch (...) {
    return {MAPI_E_CALL_FAILED, {}};
  }
}

ObjectCore::ObjectCore(Kind kind) : kind_(kind) {
  CountLive(kind, 1);
}
ObjectCore::~ObjectCore() {
  CountLive(kind_, -1);
}

ULONG ObjectCore::Decrement() {
  const ULONG before = references_.fetch_sub(1);
  assert(before > 0 && "released more often than referenced");
  return before - 1;
}

HRESULT ObjectCore::Remember(Failure&& failure) noexcept {
  const std::scoped_lock lock(error_lock_);
  error_code_ = failure.code;
  error_sentence_ = std::move(failure.sentence);
  return failure.code;
}

void ObjectCore::DescribeError(HRESULT code, ULONG flags, LPMAPIERROR* error) {
  const std::scoped_lock lock(error_lock_);
  if (error_code_ != code || error_sentence_.empty()) return;
  MapiArena arena;
  auto* answer = arena.AllocateArray<MAPIERROR>(1);
  *answer = {};
  const std::u16string sentence = vault::Utf16FromUtf8(error_sentence_);
  answer->lpszError = CopyForCaller(sentence, flags, arena);
  answer->lpszComponent = CopyForCaller(u"Hoardex message store", flags, arena);
  answer->ulLowLevelError = static_cast<ULONG>(error_code_);
  arena.Release();
  *error = answer;
}

}  // namespace provider
