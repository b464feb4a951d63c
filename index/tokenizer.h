// The full-text tokenizer "hoardex": SQLite's unicode61 without case and diacritics, except that text of scripts
// without blanks between words (Han, kana, Thai) is cut into single characters. A query term of several such characters
// becomes a phrase by FTS5's own rule for terms that give several tokens, so that any part of a Japanese word is found.
#pragma once

struct sqlite3;

namespace hoardex {

// Makes the tokenizer known to a connection; every connection that touches the index needs it. Throws DatabaseError.
void RegisterTokenizer(sqlite3* db);

}  // namespace hoardex
