#include "index/tokenizer.h"

#include <sqlite3.h>

#include <memory>
#include <string_view>

#include "index/database.h"
#include "index/text.h"

namespace hoardex {
namespace {

using TokenCallback = int (*)(void*, int, const char*, int, int, int);

struct Tokenizer {
  fts5_tokenizer inner;
  Fts5Tokenizer* instance = nullptr;
};

fts5_api* Api(sqlite3* db) {
  fts5_api* api = nullptr;
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db, "SELECT fts5(?1)", -1, &statement, nullptr) == SQLITE_OK) {
    sqlite3_bind_pointer(statement, 1, &api, "fts5_api_ptr", nullptr);
    sqlite3_step(statement);
  }
  sqlite3_finalize(statement);
  return api;
}

int Create(void* context, const char**, int, Fts5Tokenizer** out) {
  auto* api = static_cast<fts5_api*>(context);
  auto made = std::make_unique<Tokenizer>();
  void* inner_context = nullptr;
  int result = api->xFindTokenizer(api, "unicode61", &inner_context, &made->inner);
  if (result != SQLITE_OK) return result;
  const char* arguments[] = {"remove_diacritics", "2"};
  result = made->inner.xCreate(inner_context, arguments, 2, &made->instance);
  if (result != SQLITE_OK) return result;
  *out = reinterpret_cast<Fts5Tokenizer*>(made.release());
  return SQLITE_OK;
}

void Delete(Fts5Tokenizer* tokenizer) {
  std::unique_ptr<Tokenizer> owned(reinterpret_cast<Tokenizer*>(tokenizer));
  if (owned) owned->inner.xDelete(owned->instance);
}

struct Splitter {
  void* context;
  TokenCallback emit;
  std::string_view text;
};

bool HasUnspaced(std::string_view token) {
  for (size_t i = 0; i < token.size();) {
    if (static_cast<unsigned char>(token[i]) < 0x80) {
      ++i;
    } else if (IsUnspacedScript(DecodeUtf8(token, &i))) {
      return true;
    }
  }
  return false;
}

// Cuts one token of unicode61. The pieces are taken from the original text, since the folded token has other offsets;
// what is not of an unspaced script keeps only the folding of ASCII letters, which is what mixed words contain.
int Split(void* context, int flags, const char* token, int size, int start, int end) {
  const auto& splitter = *static_cast<Splitter*>(context);
  if (!HasUnspaced({token, static_cast<size_t>(size)}))
    return splitter.emit(splitter.context, flags, token, size, start, end);
  const std::string_view source = splitter.text.substr(static_cast<size_t>(start), static_cast<size_t>(end - start));
  for (size_t at = 0; at < source.size();) {
    const size_t first = at;
    const bool single = IsUnspacedScript(DecodeUtf8(source, &at));
    while (!single && at < source.size()) {
      size_t next = at;
      if (IsUnspacedScript(DecodeUtf8(source, &next))) break;
      at = next;
    }
    const std::string piece = AsciiLower(source.substr(first, at - first));
    const int result = splitter.emit(splitter.context, flags, piece.data(), static_cast<int>(piece.size()),
                                     start + static_cast<int>(first), start + static_cast<int>(at));
    if (result != SQLITE_OK) return result;
  }
  return SQLITE_OK;
}

int Tokenize(Fts5Tokenizer* tokenizer, void* context, int flags, const char* text, int size, TokenCallback emit) {
  auto* self = reinterpret_cast<Tokenizer*>(tokenizer);
  Splitter splitter{context, emit, {text, static_cast<size_t>(size)}};
  return self->inner.xTokenize(self->instance, &splitter, flags, text, size, Split);
}

}  // namespace

void RegisterTokenizer(sqlite3* db) {
  fts5_api* api = Api(db);
  if (!api) throw DatabaseError("this SQLite was built without FTS5 (full-text search)");
  fts5_tokenizer functions{Create, Delete, Tokenize};
  if (api->xCreateTokenizer(api, "hoardex", api, &functions, nullptr) != SQLITE_OK) {
    throw DatabaseError("the full-text tokenizer could not be registered");
  }
}

}  // namespace hoardex
