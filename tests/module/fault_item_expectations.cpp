#include "tests/module/fault_item_expectations.h"

namespace faults {
namespace {

// The steps that an item of that type has and mail has not, by the first field of their property's key.
const Keys kNone, kEverything = {L""}, kTyped = {L"635E9051/100", L"D5CDD502/15",  L"F8FA7FA3/100", L"48FD6EC8/100",
                                                 L"B33AF30B/100", L"0BA7D6C3/100", L"09429607/100", L"D55BAE5A/100",
                                                 L"744C8242/100", L"3F8472B5/100", L"4776CAFA/100"},
                  kNamed = {L"F8FA7FA3/100"}, kNamesAndLinks = {L"E3E0584C/21", L"0B63E343/12"};

#define ACCESSOR "CUrlAccessor::Init() - "
#define CHUNK "CHoardexFilter::GetChunk() - "
#define READ(what) "CHoardexFilter::Read" what "Properties() - "
#define RECIPIENTS "CHoardexFilter::GetRecipientInfo() - "
#define NO_CLASS CHUNK "HrGetOneProp for PR_MESSAGE_CLASS failed with [0x%08lX]"
#define NO_TYPE RECIPIENTS "HrGetOneProp for PR_SENDER_ADDRTYPE failed with [0x%08lX]"
#define NOT_MADE "CHoardexSP::CreateAccessor() - Init failed with [0x%08lX]"

// clang-format off
#define ATTACHED(call, nth, what) {kAttached, call, nth, kTheCode, &kEverything, {ACCESSOR what " failed with [0x%08lX]"}}

const ItemExpectation kExpectations[] = {
    {kMessages, "MAPIAllocateBuffer", 1, E_FAIL, &kEverything, {ACCESSOR "GetMsgFromURL failed hr=80004005"}},
    {kMessages, "IMsgStore::OpenEntry", 1, kTheCode, &kEverything, {ACCESSOR "GetMsgFromURL failed hr=%s", NOT_MADE}},
    {kMessages, "IMAPIProp::GetProps", 1, kTheCode, &kEverything, {ACCESSOR "GetProps failed with [0x%08lX]",
     NOT_MADE}},
    {kMessages, "MAPIAllocateBuffer", 2, S_OK, &kEverything,
     {CHUNK "GetMsgFromURL failed to get IMessage ptr, error [0x80004005]"}},
    {kMessages, "IMsgStore::OpenEntry", 2, S_OK, &kEverything,
     {CHUNK "GetMsgFromURL failed to get IMessage ptr, error [0x%08lX]"}},
    {kMessages, "IMAPIProp::GetProps", 2, S_OK, &kEverything,
     {READ("Message") "GetProps for message failed with error [0x%08lX]"}},
    {kMessages, "HrGetOneProp", 1, S_OK, &kTyped, {NO_CLASS}},
    {kMessages, "IMAPIProp::GetProps", 3, S_OK, &kTyped, {NO_CLASS}},
    {kCard, "IMAPIProp::GetProps", 4, S_OK, &kTyped,
     {READ("Contact") "GetProps for (contact) message failed with [0x%08lX]"}},
    {kCard, "IMAPIProp::GetIDsFromNames", 1, S_OK, &kNamed,
     {READ("Contact") "GetProps on Contact properties succeeded [0x%s]",
     READ("Contact") "GetIDsFromNames for message (Task) failed with [0x%08lX]"}},
    {kCard, "IMAPIProp::GetProps", 5, S_OK, &kNamed,
     {READ("Contact") "GetProps for message (Contact item) failed with [0x%08lX]"}},
    {kMeeting, "IMAPIProp::GetIDsFromNames", 1, S_OK, &kTyped,
     {READ("Calendar") "GetIDsFromNames for message (appointment) failed with [0x%08lX]"}},
    {kMeeting, "IMAPIProp::GetProps", 4, S_OK, &kTyped,
     {READ("Calendar") "GetProps for message (appointment) failed with [0x%08lX]"}},
    {kTask, "IMAPIProp::GetIDsFromNames", 1, S_OK, &kTyped,
     {READ("Task") "GetIDsFromNames for message (Task) failed with [0x%08lX]"}},
    {kTask, "IMAPIProp::GetProps", 4, S_OK, &kTyped,
     {READ("Task") "GetProps for message (Task) failed with [0x%08lX]"}},
    {kNote, "IMAPIProp::GetIDsFromNames", 1, S_OK, &kTyped,
     {READ("StickyNote") "GetIDsFromNames for message (StickyNote) failed with [0x%08lX]"}},
    {kNote, "IMAPIProp::GetProps", 4, S_OK, &kTyped,
     {READ("StickyNote") "GetProps for message (StickyNote item) failed with [0x%08lX]"}},
    {kMessages, "HrGetOneProp", 2, S_OK, &kNone, {NO_TYPE}},
    {kMail, "IMAPIProp::GetProps", 4, S_OK, &kNone, {NO_TYPE}},
    {kMeeting | kTask | kNote, "IMAPIProp::GetProps", 5, S_OK, &kNone, {NO_TYPE}},
    {kCard, "IMAPIProp::GetProps", 6, S_OK, &kNone, {NO_TYPE}},
    {kMessages, "IMessage::GetRecipientTable", 1, S_OK, &kNone,
     {RECIPIENTS "GetRecipientTable for message failed with [0x%08lX]"}},
    {kMessages, "IMAPITable::GetRowCount", 1, S_OK, &kNone,
     {RECIPIENTS "GetRowCount on RecipientTable failed with [0x%08lX]"}},
    {kMessages, "IMAPITable::SetColumns", 1, S_OK, &kNone, {RECIPIENTS "GetRowCount on RecipientTable returned 1 rows",
     RECIPIENTS "SetColumns on RecipientTable failed with [0x%08lX]"}},
    {kMessages, "IMAPITable::QueryRows", 1, S_OK, &kNone,
     {RECIPIENTS "QueryRows on RecipientTable failed with [0x%08lX]"}},
    {kMessages, "IMessage::GetAttachmentTable", 1, S_OK, &kNamesAndLinks,
     {CHUNK "GetAttachmentTable for message failed with [0x%08lX]"}},
    {kMessages, "IMAPITable::GetRowCount", 2, S_OK, &kNamesAndLinks,
     {CHUNK "GetRowCount for attachment table failed with [0x%08lX]"}},
    {kMessages, "IMAPITable::SetColumns", 2, S_OK, &kNamesAndLinks,
     {CHUNK "SetColumns for attachment table failed with [0x%08lX]"}},
    {kMessages, "IMAPITable::QueryRows", 2, S_OK, &kNamesAndLinks,
     {CHUNK "QueryRows for attachment table failed with [0x%08lX]"}},

    {kAttached, "MAPIAllocateBuffer", 1, E_FAIL, &kEverything, {ACCESSOR "GetMsgFromURL failed with [0x80004005]"}},
    {kAttached, "IMsgStore::OpenEntry", 1, kTheCode, &kEverything, {ACCESSOR "GetMsgFromURL failed with [0x%08lX]",
     NOT_MADE}},
    ATTACHED("IMAPIProp::GetProps", 1, "GetProps"),
    ATTACHED("IMessage::GetAttachmentTable", 1, "GetAttachmentTable"),
    ATTACHED("IMAPITable::SetColumns", 1, "SetColumns for attachment table"),
    {kAttached, "MAPIAllocateBuffer", 2, E_FAIL, &kEverything, {ACCESSOR "CStringToEntryID failed"}},
    ATTACHED("IMAPITable::Restrict", 1, "Restrict for attachment table"),
    ATTACHED("IMAPITable::GetRowCount", 1, "GetRowCount for attachment table"),
    ATTACHED("IMAPITable::QueryRows", 1, "QueryRows for attachment table"),
    ATTACHED("IMessage::OpenAttach", 1, "OpenAttach"),
    ATTACHED("IMAPIProp::GetProps", 2, "GetProps on attachment"),
    {kFile, "IMAPIProp::OpenProperty", 1, kTheCode, &kEverything,
     {ACCESSOR "OpenProperty on value-attachment failed with [0x%08lX]"}},
    {kFile, "IStream::Stat", 1, kTheCode, &kEverything, {ACCESSOR "Stat on value-attachment failed with [0x%08lX]"}},
    {kFile, "IStream::CopyTo", 1, kTheCode, &kEverything,
     {ACCESSOR "CopyTo on value-attachment stream failed with [0x%08lX]"}},
    // The object is opened as another kind of stream.
    {kObject, "IMAPIProp::OpenProperty", 1, S_OK, &kNone,
     {ACCESSOR "OpenProperty with StreamDocFile for OLE-attachment failed with [0x%08lX]"}},
    {kObject, "IStream::Stat", 1, kTheCode, &kEverything, {ACCESSOR "Stat for OLE-attachment failed with [0x%08lX]"}},
    {kObject, "IStream::CopyTo", 1, kTheCode, &kEverything,
     {ACCESSOR "CopyTo for OLE-attachment failed with [0x%08lX]"}},
};
// clang-format on

}  // namespace

const ItemExpectation* ExpectationOf(unsigned item, const std::string& call, long nth) {
  for (const ItemExpectation& row : kExpectations)
    if ((row.items & item) && row.call == call && row.nth == nth) return &row;
  return nullptr;
}

}  // namespace faults
