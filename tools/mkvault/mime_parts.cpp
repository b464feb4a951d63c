#include "tools/mkvault/mime_parts.h"

#include <memory>
#include <span>
#include <vector>

#include "tools/mkvault/mime_message.h"

namespace mkvault {
namespace {

using vault::AttachmentBuilder;
using vault::MessageBuilder;

// What lies deeper is attached as it stands.
constexpr int kDeepest = 30;
constexpr int kDeepestPart = 100;

struct FreeArray {
  void operator()(GByteArray* array) const { g_byte_array_unref(array); }
};

// The decoded bytes of a part.
std::vector<std::uint8_t> ContentOf(GMimePart* part) {
  GMimeDataWrapper* content = g_mime_part_get_content(part);
  if (!content) return {};
  const Owned<GMimeStream> stream(g_mime_stream_mem_new());
  g_mime_data_wrapper_write_to_stream(content, stream.get());
  const GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(stream.get()));
  return {bytes->data, bytes->data + bytes->len};
}

// A part as it stands in the message, headers included.
std::string SourceOf(GMimeObject* object) {
  const std::unique_ptr<char, decltype(&g_free)> text(g_mime_object_to_string(object, nullptr), g_free);
  return text ? text.get() : "";
}

std::string Convert(std::string_view text, const char* charset) {
  gsize length = 0;
  const std::unique_ptr<char, decltype(&g_free)> converted(
      g_convert_with_fallback(text.data(), static_cast<gssize>(text.size()), "UTF-8", charset, nullptr, nullptr,
                              &length, nullptr),
      g_free);
  return converted ? std::string(converted.get(), length) : std::string();
}

std::string TextOf(GMimePart* part) {
  const std::vector<std::uint8_t> bytes = ContentOf(part);
  const std::string_view raw(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const char* charset = g_mime_object_get_content_type_parameter(GMIME_OBJECT(part), "charset");
  if (charset && *charset && g_ascii_strcasecmp(charset, "us-ascii") != 0 &&
      g_ascii_strcasecmp(charset, "utf-8") != 0) {
    const std::string text = Convert(raw, g_mime_charset_iconv_name(charset));
    if (!text.empty() || raw.empty()) return text;
  }
  return ToUtf8(raw);
}

class Parts {
 public:
  Parts(int depth, MessageBuilder& out) : depth_(depth), out_(out) {}

  void Add(GMimeObject* part, bool related, int level) {
    if (!part) return;
    if (GMIME_IS_MULTIPART(part) && level < kDeepestPart) return AddMultipart(GMIME_MULTIPART(part), related, level);
    if (GMIME_IS_MESSAGE_PART(part) && depth_ < kDeepest) {
      if (GMimeMessage* inner = g_mime_message_part_get_message(GMIME_MESSAGE_PART(part)))
        return Describe(inner, {}, 0, depth_ + 1, out_.AttachMessage("IPM.Note"));
    }
    if (GMIME_IS_TEXT_PART(part) && TakeAsBody(GMIME_TEXT_PART(part), related)) return;
    Attach(part, related);
  }

  void Finish() {
    if (has_plain_) out_.Body(plain_);
  }

 private:
  void AddMultipart(GMimeMultipart* multipart, bool related, int level) {
    const char* subtype =
        g_mime_content_type_get_media_subtype(g_mime_object_get_content_type(GMIME_OBJECT(multipart)));
    const bool is_related = subtype && g_ascii_strcasecmp(subtype, "related") == 0;
    for (int i = 0; i < g_mime_multipart_get_count(multipart); ++i)
      Add(g_mime_multipart_get_part(multipart, i), related || (is_related && i > 0), level + 1);
  }

  // The first plain text and the first HTML text that are not meant as files are the bodies. Further plain text goes on
  // in the body where the message has no other form (mailing lists append one).
  bool TakeAsBody(GMimeTextPart* part, bool related) {
    GMimeObject* object = GMIME_OBJECT(part);
    const char* disposition = g_mime_object_get_disposition(object);
    if (related || g_mime_part_get_filename(GMIME_PART(part)) ||
        (disposition && g_ascii_strcasecmp(disposition, "attachment") == 0))
      return false;
    GMimeContentType* type = g_mime_object_get_content_type(object);
    if (g_mime_content_type_is_type(type, "text", "html")) {
      if (has_html_) return false;
      has_html_ = true;
      out_.Html(TextOf(GMIME_PART(part)));
      return true;
    }
    if (!g_mime_content_type_is_type(type, "text", "plain") || (has_plain_ && has_html_)) return false;
    if (has_plain_ && !plain_.empty()) plain_ += "\r\n";
    plain_ += WithLineEnds(TextOf(GMIME_PART(part)));
    has_plain_ = true;
    return true;
  }

  void Attach(GMimeObject* object, bool related) {
    GMimeContentType* type = g_mime_object_get_content_type(object);
    const std::unique_ptr<char, decltype(&g_free)> mime(g_mime_content_type_get_mime_type(type), g_free);
    const bool leaf = GMIME_IS_PART(object);
    const char* given = leaf ? g_mime_part_get_filename(GMIME_PART(object)) : nullptr;
    std::string name = given ? ToUtf8(given) : std::string();
    // A path is not part of a name.
    if (const auto slash = name.find_last_of("/\\"); slash != name.npos) name.erase(0, slash + 1);
    if (name.empty()) name = "part" + std::to_string(++unnamed_) + ExtensionOf(mime.get(), leaf);
    AttachmentBuilder* attachment;
    if (leaf) {
      attachment = &out_.AttachFile(name, std::span<const std::uint8_t>(ContentOf(GMIME_PART(object))));
    } else {
      attachment = &out_.AttachFile(name, SourceOf(object));
    }
    if (mime) attachment->MimeType(mime.get());
    const char* id = g_mime_object_get_content_id(object);
    if (id && *id) attachment->Text(0x3712, ToUtf8(id));
    if (related && id && *id) attachment->Bool(0x7FFE, true);  // shown in the body, not in the list
  }

  static std::string ExtensionOf(const char* mime, bool leaf) {
    if (!leaf) return ".eml";
    constexpr std::pair<const char*, const char*> kKnown[] = {
        {"text/plain", ".txt"},   {"text/html", ".html"},        {"text/calendar", ".ics"},
        {"text/vcard", ".vcf"},   {"image/png", ".png"},         {"image/jpeg", ".jpg"},
        {"image/gif", ".gif"},    {"text/csv", ".csv"},          {"text/xml", ".xml"},
        {"text/rtf", ".rtf"},     {"application/pdf", ".pdf"},   {"application/zip", ".zip"},
        {"text/x-vcard", ".vcf"}, {"application/json", ".json"}, {"application/pkcs7-signature", ".p7s"}};
    for (const auto& [type, extension] : kKnown)
      if (mime && g_ascii_strcasecmp(mime, type) == 0) return extension;
    return ".dat";
  }

  const int depth_;
  MessageBuilder& out_;
  std::string plain_;
  bool has_plain_ = false, has_html_ = false;
  int unnamed_ = 0;
};

}  // namespace

std::string ToUtf8(std::string_view text) {
  if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) return std::string(text);
  std::string converted = Convert(text, "windows-1252");
  if (!converted.empty()) return converted;
  const std::unique_ptr<char, decltype(&g_free)> valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())),
                                                       g_free);
  return valid.get();
}

std::string WithLineEnds(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 32);
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) out += '\r';
    out += text[i];
  }
  return out;
}

void AddParts(GMimeMessage* message, int depth, MessageBuilder& out) {
  Parts parts(depth, out);
  parts.Add(g_mime_message_get_mime_part(message), false, 0);
  parts.Finish();
}

}  // namespace mkvault
