#include "tools/mkvault/random_text.h"

#include <algorithm>
#include <iterator>
#include <set>

namespace mkvault {
namespace {

constexpr std::size_t kVocabulary = 40'000, kPeople = 600;

// The frequent ones, most frequent first.
constexpr std::string_view kCommon[] = {
    "the",       "to",       "and",      "of",          "a",       "in",        "for",      "is",       "you",
    "on",        "we",       "that",     "it",          "be",      "with",      "this",     "will",     "have",
    "are",       "as",       "at",       "your",        "from",    "by",        "please",   "not",      "can",
    "our",       "if",       "or",       "all",         "was",     "but",       "has",      "would",    "any",
    "an",        "me",       "new",      "they",        "meeting", "so",        "week",     "there",    "thanks",
    "us",        "what",     "do",       "more",        "about",   "time",      "my",       "which",    "also",
    "today",     "one",      "need",     "know",        "been",    "should",    "when",     "out",      "get",
    "other",     "up",       "no",       "next",        "just",    "project",   "attached", "contract", "report",
    "could",     "see",      "let",      "office",      "their",   "who",       "like",     "work",     "before",
    "order",     "only",     "these",    "some",        "list",    "price",     "call",     "monday",   "friday",
    "date",      "now",      "customer", "invoice",     "after",   "first",     "over",     "how",      "may",
    "change",    "team",     "question", "information", "morning", "into",      "than",     "two",      "send",
    "agreement", "plan",     "then",     "draft",       "copy",    "number",    "them",     "sure",     "make",
    "following", "payment",  "group",    "had",         "last",    "review",    "month",    "business", "delivery",
    "budget",    "year",     "below",    "questions",   "back",    "offer",     "company",  "discuss",  "account",
    "good",      "its",      "system",   "help",        "service", "available", "forward",  "schedule", "comments",
    "because",   "through",  "receive",  "version",     "travel",  "since",     "however",  "between",  "account",
    "market",    "tomorrow", "website",  "training"};

constexpr std::string_view kStarts[] = {"b",  "br", "c",  "ch", "d", "dr", "f",  "fl", "g",  "gr", "h",
                                        "j",  "k",  "l",  "m",  "n", "p",  "pl", "qu", "r",  "s",  "sh",
                                        "st", "t",  "tr", "v",  "w", "z",  "",   "sc", "cl", "th"};
constexpr std::string_view kMiddles[] = {"a", "e", "i", "o", "u", "ai", "ea", "ou", "io", "a", "e", "o"};
constexpr std::string_view kEnds[] = {"",   "n",  "r",  "s",  "l", "t", "m", "nd",
                                      "st", "rt", "ck", "ng", "x", "",  "",  "ll"};
constexpr std::string_view kGiven[] = {"Anna",  "Ben",    "Clara",   "David",  "Elena", "Felix", "Grace", "Hugo",
                                       "Ines",  "Jonas",  "Karin",   "Liam",   "Maria", "Nils",  "Olga",  "Paul",
                                       "Rita",  "Samuel", "Tessa",   "Victor", "Wanda", "Zoë",   "Björn", "Łucja",
                                       "Renée", "Søren",  "Дмитрий", "Ольга",  "花子",  "健太"};
constexpr std::string_view kHosts[] = {"example.com", "example.org", "example.net", "mail.example.com",
                                       "sales.example.org"};
constexpr std::string_view kOtherTitles[] = {"Angebot für die Überholung der Anlage",
                                             "Réunion reportée à jeudi",
                                             "Протокол совещания",
                                             "会議の日程について",
                                             "Πρόσκληση σε σύσκεψη",
                                             "Zmiana terminu dostawy",
                                             "Résumé des coûts 📊",
                                             "تقرير المبيعات الشهري"};

std::string Capital(std::string word) {
  if (!word.empty() && word[0] >= 'a' && word[0] <= 'z') word[0] = static_cast<char>(word[0] - 32);
  return word;
}

std::string Invented(Random& random, unsigned syllables) {
  std::string word;
  for (unsigned i = 0; i < syllables; ++i)
    word.append(random.Of(kStarts)).append(random.Of(kMiddles)).append(random.Of(kEnds));
  return word;
}

// Letters of an address: what is not ASCII is left out.
std::string AsciiOf(const std::string& name) {
  std::string out;
  for (const char c : name) {
    if (c >= 'A' && c <= 'Z') out += static_cast<char>(c + 32);
    if (c >= 'a' && c <= 'z') out += c;
  }
  return out.empty() ? "x" : out;
}

}  // namespace

Random::Random(std::uint64_t seed) : state_(seed * 0x9E3779B97F4A7C15 + 0xD1B54A32D192ED03) {
  if (state_ == 0) state_ = 1;
  for (int i = 0; i < 8; ++i) Next();
}

std::uint64_t Random::Next() {
  state_ ^= state_ >> 12;
  state_ ^= state_ << 25;
  state_ ^= state_ >> 27;
  return state_ * 0x2545F4914F6CDD1D;
}

std::int64_t Random::Between(std::int64_t low, std::int64_t high) {
  const auto count = static_cast<std::uint64_t>(high - low) + 1;
  return low + static_cast<std::int64_t>(count ? Next() % count : Next());
}

Zipf::Zipf(std::size_t count) {
  std::uint64_t sum = 0;
  sums_.reserve(count);
  for (std::size_t rank = 0; rank < count; ++rank) sums_.push_back(sum += (std::uint64_t{1} << 32) / (rank + 3));
}

std::size_t Zipf::operator()(Random& random) const {
  const std::uint64_t at = random.Next() % sums_.back();
  return static_cast<std::size_t>(std::upper_bound(sums_.begin(), sums_.end(), at) - sums_.begin());
}

Language::Language(std::uint64_t seed) : word_rank_(kVocabulary), person_rank_(kPeople) {
  Random random(seed ^ 0x4C414E4755414745);
  std::set<std::string> seen;
  const auto add = [&](std::string word) {
    if (seen.insert(word).second) words_.push_back(std::move(word));
  };
  for (const std::string_view word : kCommon) add(std::string(word));
  // Longer words further down.
  while (words_.size() < kVocabulary) add(Invented(random, 1 + random.Below(words_.size() < 3000 ? 2 : 4)));
  std::set<std::string> addresses;
  while (people_.size() < kPeople) {
    Person person;
    person.given = random.Of(kGiven);
    person.surname = Capital(Invented(random, 2));
    person.name = person.given + " " + person.surname;
    person.email = AsciiOf(person.given) + "." + AsciiOf(person.surname) + "@" + std::string(random.Of(kHosts));
    if (addresses.insert(person.email).second) people_.push_back(std::move(person));
  }
}

const std::string& Language::Word(Random& random) const {
  return words_[word_rank_(random)];
}

std::string Language::Sentence(Random& random) const {
  std::string sentence = Capital(Word(random));
  for (std::uint32_t left = 3 + random.Below(14); left; --left) {
    if (random.Below(12) == 0) sentence += ",";
    sentence += " ";
    // Figures are as much part of mail as words.
    sentence += random.Below(40) == 0 ? std::to_string(random.Below(20'000)) : Word(random);
  }
  return sentence + (random.Below(8) == 0 ? "?" : ".");
}

std::string Language::Text(Random& random, std::size_t words) const {
  std::string text;
  std::size_t line = 0;
  for (std::size_t written = 0; written < words;) {
    const std::string sentence = Sentence(random);
    written += 1 + static_cast<std::size_t>(std::count(sentence.begin(), sentence.end(), ' '));
    text += sentence;
    line += sentence.size();
    const bool paragraph = random.Below(6) == 0;
    if (paragraph || line > 300) line = 0;
    text += paragraph ? "\r\n\r\n" : line == 0 ? "\r\n" : " ";
  }
  return text + "\r\n";
}

std::string Language::Title(Random& random) const {
  if (random.Below(25) == 0) return std::string(random.Of(kOtherTitles));
  std::string title = Capital(Word(random));
  for (std::uint32_t left = 1 + random.Below(6); left; --left) title += " " + Word(random);
  return title;
}

const Person& Language::Somebody(Random& random) const {
  return people_[person_rank_(random)];
}

std::size_t Language::Length(Random& random) {
  // Tenths of all mails have at most so many words.
  constexpr std::uint32_t kTenths[] = {3, 14, 26, 42, 62, 90, 130, 190, 290, 520, 4000};
  const std::uint32_t tenth = random.Below(10);
  // The longest are few even in the last tenth.
  const std::uint32_t top = tenth == 9 && !random.Percent(10) ? 1200 : kTenths[tenth + 1];
  return static_cast<std::size_t>(random.Between(kTenths[tenth], top));
}

}  // namespace mkvault
