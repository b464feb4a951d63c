// The query language, compiled to one full-text expression and one SQL condition. Pure; see docs/architecture.md or
// `hoardex search --help` for what can be written.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace hoardex {

// what() is a sentence for the user.
class QueryError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct QueryPlan {
  // For `documents MATCH`: what is ranked and marked. Empty when the query has no words that every hit must contain.
  std::string match;
  // Over the table items, named i; parameters are bound to its "?" in order. Empty when there is no condition.
  std::string condition;
  std::vector<std::string> parameters;
};

// Throws QueryError.
QueryPlan CompileQuery(std::string_view query);

// One query out of the words of a command line: a word that holds blanks was quoted for the shell and is a phrase,
// unless it is the only one.
std::string JoinQuery(const std::vector<std::string>& words);

// One quoted term of a field, for options like --folder: Term("folder", "a b") -> folder:"a b".
std::string QueryTerm(std::string_view field, std::string_view value);

}  // namespace hoardex
