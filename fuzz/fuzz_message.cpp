// A message with its recipients, attachments and embedded messages.
#include "fuzz/reading.h"
#include "fuzz/store_image.h"
#include "vault/message.h"

namespace {

void ReadMessage(const vault::Message& message, fuzz::Budget& budget);

void ReadAttachment(const vault::Attachment& attachment, fuzz::Budget& budget) {
  fuzz::ReadProperties(attachment.properties(), budget);
  attachment.file_name();
  if (auto data = attachment.Data()) {
    std::uint8_t some[64];
    FUZZ_CHECK(data->size() > sizeof some || data->ReadAt(0, some) == data->size());
  }
  if (attachment.method() == vault::AttachMethod::kEmbedded) ReadMessage(attachment.OpenEmbedded(), budget);
}

template <typename Body>
void Try(fuzz::Budget& budget, Body body) {
  if (!budget.Take(1)) return;
  try {
    body();
  } catch (const vault::Error&) {
    // The rest of the message may be good.
  }
}

void ReadMessage(const vault::Message& message, fuzz::Budget& budget) {
  FUZZ_CHECK(message.depth() <= vault::kMaxEmbeddingDepth);
  fuzz::ReadProperties(message.properties(), budget);
  Try(budget, [&] { FUZZ_CHECK(message.subject().size() <= (1 << 24)); });
  Try(budget, [&] { message.message_class(); });
  Try(budget, [&] { fuzz::ReadTable(message.Recipients(), budget); });
  Try(budget, [&] { fuzz::ReadTable(message.Attachments(), budget); });
  for (const vault::Nid nid : message.AttachmentNids()) {
    Try(budget, [&] { ReadAttachment(message.OpenAttachment(nid), budget); });
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr vault::Nid kNid = vault::MakeNid(vault::NidType::kMessage, 0x10000);
  const fuzz::Bytes store = fuzz::BlockCase::Parse({data, size}).MakeStore(kNid);
  try {
    const auto db = vault::Database::OpenBytes(store);
    fuzz::Budget budget(fuzz::kReadingBudget);
    ReadMessage(vault::Message(db, db->FindNode(kNid).value(), nullptr), budget);
  } catch (const vault::Error&) {
  }
  return 0;
}
