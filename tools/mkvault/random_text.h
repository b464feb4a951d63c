// Invented people and texts whose words are as unevenly frequent as those of real mail. The same seed gives the same
// text on every machine: whole numbers only, and no distribution of the standard library.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace mkvault {

// xorshift64*.
class Random {
 public:
  explicit Random(std::uint64_t seed);
  std::uint64_t Next();
  // 0 … limit - 1.
  std::uint32_t Below(std::uint32_t limit) { return static_cast<std::uint32_t>((Next() >> 32) * limit >> 32); }
  // low … high, both included.
  std::int64_t Between(std::int64_t low, std::int64_t high);
  bool Percent(std::uint32_t percent) { return Below(100) < percent; }
  template <class List>
  const auto& Of(const List& list) {
    return list[Below(static_cast<std::uint32_t>(std::size(list)))];
  }

 private:
  std::uint64_t state_;
};

// The n-th of a list is drawn about as often as 1 / n.
class Zipf {
 public:
  explicit Zipf(std::size_t count);
  std::size_t operator()(Random& random) const;

 private:
  std::vector<std::uint64_t> sums_;
};

struct Person {
  std::string given, surname, name, email;
};

class Language {
 public:
  // Vocabulary and people, made from the seed.
  explicit Language(std::uint64_t seed);

  const std::string& Word(Random& random) const;
  // A capital letter, words, a full stop.
  std::string Sentence(Random& random) const;
  // Paragraphs of `words` words in all, lines ended by CR LF.
  std::string Text(Random& random, std::size_t words) const;
  // Two to seven words, now and then in another script.
  std::string Title(Random& random) const;
  const Person& Somebody(Random& random) const;
  // A few to some thousand words: as many as a mail has, most of them short.
  static std::size_t Length(Random& random);

 private:
  std::vector<std::string> words_;
  std::vector<Person> people_;
  Zipf word_rank_, person_rank_;
};

}  // namespace mkvault
