// The grammar of item URLs of the scheme "zkoffline3x": the names under which the indexer and the shell know every
// item. Portable: no Windows header here, so that it is also compiled and fuzzed natively.
//
//   root        zkoffline3x://{SID}/default/
//   vault file  root + the file's path, with backslashes, ending in ".db"
//   folder      vault file + "/" + entry ID in hexadecimal, one per level below the store's top
//   message     folder + "/" + entry ID + "[[" + size + "]].zkm"
//   attachment  message + "/" + record key in hexadecimal + "/" + display name
//
// There is no escaping: a display name that holds "/" splits in two.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace url {

inline constexpr wchar_t kScheme[] = L"zkoffline3x";
inline constexpr wchar_t kVaultSuffix[] = L".db";
inline constexpr wchar_t kRootMarker[] = L"default/";
inline constexpr wchar_t kMessageSuffix[] = L".zkm";
inline constexpr size_t kVaultToken = 3;  // the vault file's path among the tokens

// The root of the user with this SID (without braces).
std::wstring Root(std::wstring_view sid);

// A child of a container: exactly one "/" between the two, whether or not the parent still has its own (the indexer
// trims it).
std::wstring Child(std::wstring_view parent, std::wstring_view name);

// Turns every "/" between the first "default/" and the ".db" after it into "\": the indexer may hand the vault file's
// path back with forward slashes. Case of both marks is ignored; without the second nothing is changed.
std::wstring Normalise(std::wstring_view url);

// Where the vault file's path ends; the URL's end when nothing follows it. A path may hold the marks of the tokens
// behind it, which are therefore looked for from here on.
size_t BehindVault(std::wstring_view url);

// The size group of a URL, from the first "[[" behind the vault's path through the first "]]" after it; empty when
// there is none.
std::wstring_view SizeGroup(std::wstring_view url);

// The URL without its size group.
std::wstring WithoutSize(std::wstring_view url);

// The message URL of an attachment URL: cut right after the first ".zkm" behind the vault's path. The whole URL when
// there is none.
std::wstring MessageOfAttachment(std::wstring_view url);

// Searches without regard to the case of ASCII letters; npos when absent.
size_t FindIgnoringCase(std::wstring_view text, std::wstring_view part, size_t from = 0);
bool EqualIgnoringCase(std::wstring_view a, std::wstring_view b);

// What kind of item a URL names.
enum Kind : unsigned { kUnknown = 0, kRoot = 1, kVaultFile = 2, kFolder = 3, kMessage = 4, kAttachment = 5 };

// The kind of a URL without white space around it; kUnknown for what is not one of ours.
Kind Classify(std::wstring_view url);

// The text without white space at both ends.
std::wstring_view Trim(std::wstring_view text);

}  // namespace url

// Fills `tokens` with the scheme (empty if "://" is missing) and the non-empty parts between "/", in order, and returns
// their number.
int ExtractURLTokens(std::wstring_view url, std::vector<std::wstring>& tokens);
