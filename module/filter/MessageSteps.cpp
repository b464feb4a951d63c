// The seventy steps of a message.
#include "module/filter/ItemSteps.h"

#include <iterator>

#include "module/core/SCLog.h"
#include "module/core/Text.h"
#include "module/core/resource.h"
#include "module/filter/ItemTypes.h"

#include <filterr.h>

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexFilter";

using enum PropertySource;
using Outcome = ItemSequence::Outcome;

}  // namespace

constinit const ItemSequence::Row ItemSteps::kMessageRows[70] = {
    /*  0 */ {kNote, 0, PT_LONG, 0, &key::NoteColor, Short},
    /*  1 */ {kContact, 0, PT_UNICODE, 0, &key::ContactFullName, Text},
    /*  2 */ {kContact, 1, PT_UNICODE, 0, &key::Company, Text},
    /*  3 */ {kContact, 2, PT_UNICODE, 0, &key::JobTitle, Text},
    /*  4 */ {kContactNamed, 0, PT_STRING8, 0, &key::ContactFileAsName, NarrowText},
    /*  5 */ {kContactNamed, 1, PT_STRING8, 0, &key::ContactEmailName, NarrowText},
    /*  6 */ {kContactNamed, 2, PT_STRING8, 0, &key::ContactEmailAddress, NarrowText},
    /*  7 */ {kContactNamed, 3, PT_STRING8, 0, &key::ContactIMAddress, NarrowText},
    /*  8 */ {kContact, 3, PT_UNICODE, 0, &key::ContactCompanyTelephone, Text},
    /*  9 */ {kContact, 4, PT_UNICODE, 0, &key::HomeTelephone, Text},
    /* 10 */ {kContact, 5, PT_UNICODE, 0, &key::ContactAssistantTelephone, Text},
    /* 11 */ {kContact, 6, PT_UNICODE, 0, &key::MobileTelephone, Text},
    /* 12 */ {kContact, 7, PT_UNICODE, 0, &key::ContactDepartment, Text},
    /* 13 */ {kContact, 8, PT_UNICODE, 0, &key::OfficeLocation, Text},
    /* 14 */ {kContact, 9, PT_UNICODE, 0, &key::ContactProfession, Text},
    /* 15 */ {kContact, 10, PT_UNICODE, 0, &key::Manager, Text},
    /* 16 */ {kContact, 11, PT_UNICODE, 0, &key::ContactAssistantName, Text},
    /* 17 */ {kTask, 0, PT_SYSTIME, 0, &key::StartDate, Time},
    /* 18 */ {kTask, 1, PT_SYSTIME, 0, &key::DueDate, Time},
    /* 19 */ {kTask, 2, PT_BOOLEAN, 0, &key::CalendarIsRecurring, Truth},
    /* 20 */ {kTask, 3, PT_BOOLEAN, 0, &key::IsFlaggedComplete, Truth},
    /* 21 */ {kTask, 4, PT_STRING8, 0, &key::TaskOwner, NarrowText},
    /* 22 */ {kTask, 5, PT_LONG, 0, &key::TaskStatus, Short},
    /* 23 */ {kAppointment, 0, PT_SYSTIME, 0, &key::StartDate, Time},
    /* 24 */ {kAppointment, 1, PT_SYSTIME, 0, &key::EndDate, Time},
    /* 25 */ {kAppointment, 2, PT_LONG, 0, &key::CalendarShowTimeAs, Short},
    /* 26 */ {kAppointment, 3, PT_BOOLEAN, 0, &key::CalendarIsRecurring, Truth},
    /* 27 */ {kAppointment, 4, PT_STRING8, 0, &key::CalendarLocation, NarrowText},
    /* 28 */ {kMessage, 3, PR_DISPLAY_TO_W, kIfAppointment, &key::RequiredAttendeeNames, Text},
    /* 29 */ {kNone, 0, 0, kIfAppointment, &key::RequiredAttendeeAddresses, Member<&CHoardexFilter::to_addresses_>},
    /* 30 */ {kMessage, 2, PR_DISPLAY_CC_W, kIfAppointment, &key::OptionalAttendeeNames, Text},
    /* 31 */ {kNone, 0, 0, kIfAppointment, &key::OptionalAttendeeAddresses, Member<&CHoardexFilter::cc_addresses_>},
    /* 32 */ {kNone, 0, 0, 0, &key::ItemPathDisplay, Member<&CHoardexFilter::root_name_>},
    /* 33 */ {kNone, 0, 0, 0, &key::ItemType, TypeName},
    /* 34 */ {kNone, 0, 0, 0, &key::ItemFolderPathDisplayNarrow, Member<&CHoardexFilter::root_name_>},
    /* 35 */ {kNone, 0, 0, 0, &key::ItemFolderPathDisplay, Member<&CHoardexFilter::root_name_>},
    /* 36 */ {kNone, 0, 0, 0, &key::ItemTypeText, TypeText},
    /* 37 */ {kNone, 0, 0, 0, &key::IsAttachment, Always<false>, &kIsAttachment},
    /* 38 */ {kNone, 0, 0, 0, &key::ItemName, Subject},
    /* 39 */ {kMessage, 6, PR_SENDER_NAME_W, 0, &key::Author, Text},
    /* 40 */ {kMessage, 0, PR_MESSAGE_DELIVERY_TIME, 0, &key::ItemDate, Time},
    /* 41 */ {kNone, 0, 0, 0, &key::ItemFolderNameDisplay, Member<&CHoardexFilter::root_name_>},
    /* 42 */ {kNone, 0, 0, 0, &key::Kind, KindText},
    /* 43 */ {kNone, 0, 0, 0, &key::ToAddress, Member<&CHoardexFilter::to_addresses_>},
    /* 44 */ {kNone, 0, 0, 0, &key::CcAddress, Member<&CHoardexFilter::cc_addresses_>},
    /* 45 */ {kNone, 0, 0, 0, &key::BccAddress, Member<&CHoardexFilter::bcc_addresses_>},
    /* 46 */ {kMessage, 9, PR_SENDER_EMAIL_ADDRESS_W, 0, &key::FromAddress, Address},
    /* 47 */ {kMessage, 6, PR_SENDER_NAME_W, 0, &key::SenderName, Text},
    /* 48 */ {kNone, 0, 0, 0, &key::Title, Subject},
    /* 49 */ {kNone, 0, 0, 0, &key::IsDeleted, Always<false>},
    /* 50 */ {kMessage, 0, PR_MESSAGE_DELIVERY_TIME, 0, &key::DateReceived, Time},
    /* 51 */ {kMessage, 1, PR_DISPLAY_BCC_W, kIfNotEmpty, &key::BccName, Text},
    /* 52 */ {kMessage, 2, PR_DISPLAY_CC_W, kIfNotEmpty, &key::CcName, Text},
    /* 53 */ {kMessage, 3, PR_DISPLAY_TO_W, kIfNotEmpty, &key::ToName, Text},
    /* 54 */ {kMessage, 4, PR_MESSAGE_SIZE, 0, &key::Size, Long},
    /* 55 */ {kNone, 0, 0, 0, &key::Subject, Subject},
    /* 56 */ {kMessage, 6, PR_SENDER_NAME_W, 0, &key::FromName, Text},
    /* 57 */ {kNone, 0, 0, 0, &key::Contents, nullptr, &kBody},
    /* 58 */ {kMessage, 8, PR_CLIENT_SUBMIT_TIME, 0, &key::DateSent, Time},
    /* 59 */ {kMessage, 9, PR_SENDER_EMAIL_ADDRESS_W, 0, &key::SenderAddress, Address},
    /* 60 */ {kMessage, 10, PR_CREATION_TIME, 0, &key::DateCreated, Time},
    /* 61 */ {kMessage, 11, PR_MESSAGE_FLAGS, 0, &key::IsRead, Read},
    /* 62 */ {kNone, 0, 0, 0, &key::IsFlagged, Flagged, &kFlag},
    /* 63 */ {kMessage, 13, PR_CONVERSATION_INDEX, 0, &key::ConversationID, Hexadecimal},
    /* 64 */ {kMessage, 14, PR_SENT_REPRESENTING_NAME_W, 0, &key::OrganizerName, Text},
    /* 65 */ {kMessage, 15, PR_SENT_REPRESENTING_EMAIL_ADDRESS_W, kIfAppointment, &key::OrganizerAddress, Address},
    /* 66 */ {kNone, 0, 0, 0, &key::AutoSummary, Member<&CHoardexFilter::summary_text_>},
    /* 67 */ {kNone, 0, 0, 0, &key::AttachmentNames, Member<&CHoardexFilter::attachment_names_>, &kNames},
    /* 68 */ {kNone, 0, 0, 0, &key::HasAttachments, HasNames, &kHasAttachment},
    /* 69 */ {kNone, 0, 0, 0, &key::UrlToIndexWithModificationTime, NextLink, &kLinks},
};

constinit const ItemSequence ItemSteps::kOfMessage = {.item = "Message",
                                                      .rows = kMessageRows,
                                                      .counter = &CHoardexFilter::message_step_,
                                                      .first = -50,
                                                      .walks = true,
                                                      .traces = true,
                                                      .enter = EnterMessage,
                                                      .leave = LeaveMessage,
                                                      .beyond = Undefined,
                                                      .before_value = nullptr};

bool CHoardexFilter::OpenMessage() {
  ReleaseProperties();
  attachment_names_.clear();
  message_.Reset();
  HRESULT hr = mapi_->GetMsgFromURL(url_, &message_);
  if (FAILED(hr) || !message_) {
    ZK_LOG(L"CHoardexFilter::GetChunk() - GetMsgFromURL failed to get IMessage ptr, error [0x%08lX]", hr);
    return false;
  }
  if (FAILED(ReadMessageProperties())) return false;
  TidyPropValues message_class;
  hr = mapi::HrGetOneProp(message_.Get(), PR_MESSAGE_CLASS_W, &message_class);
  if (FAILED(hr) || !message_class || !Carries(*message_class.get(), PR_MESSAGE_CLASS_W)) {
    ZK_LOG(L"CHoardexFilter::GetChunk() - HrGetOneProp for PR_MESSAGE_CLASS failed with [0x%08lX]", hr);
  } else {
    using Reader = HRESULT (CHoardexFilter::*)();
    static constexpr struct {
      const wchar_t* name;
      Reader read;
    } kReaders[] = {
        {L"IPM.Appointment", &CHoardexFilter::ReadCalendarProperties},
        {L"IPM.Schedule.Meeting.Request", &CHoardexFilter::ReadCalendarProperties},
        {L"IPM.Task", &CHoardexFilter::ReadTaskProperties},
        {L"IPM.TaskRequest", &CHoardexFilter::ReadTaskProperties},
        {L"IPM.Contact", &CHoardexFilter::ReadContactProperties},
        {L"IPM.StickyNote", &CHoardexFilter::ReadStickyNoteProperties},
    };
    const wchar_t* name = message_class->Value.lpszW;
    ZK_LOG(L"CHoardexFilter::GetChunk() - PR_MESSAGE_CLASS = [%s]", name);
    for (const auto& reader : kReaders) {
      if (_wcsicmp(name, reader.name)) continue;
      (this->*reader.read)();
      break;
    }
  }
  GetRecipientInfo();
  return true;
}

ItemSequence::Outcome ItemSteps::EnterMessage(CHoardexFilter& filter) {
  if (!filter.mapi_) return Outcome::kEnd;
  const bool start = filter.message_step_ == CHoardexFilter::kMessageStart;
  return start && !filter.OpenMessage() ? Outcome::kEnd : Outcome::kGive;
}

HRESULT ItemSteps::LeaveMessage(CHoardexFilter& filter, STAT_CHUNK*) {
  filter.message_step_ = CHoardexFilter::kMessageStart;
  return filter.End();
}

HRESULT ItemSteps::Undefined(CHoardexFilter&, PROPVARIANT**) {
  ZK_LOG(L"CHoardexFilter::GetValue() - Called with a undefined property!");
  return FILTER_E_NO_VALUES;
}

namespace {
constexpr char kUnlessPrevented[] = "unless the policy prevents attachments (then S_OK with an untouched chunk)";
}

constinit const ItemSequence::Rule ItemSteps::kIsAttachment = {
    [](CHoardexFilter&) {
      if (!CurrentGroupPolicy()->AttachmentsPrevented()) return Outcome::kGive;
      ZK_LOG(
          L"CHoardexFilter::GetChunk() - PROP_IS_ATTACHMENT - WDS Group policy is set to ignore all email attachments");
      return Outcome::kUntouched;
    },
    kUnlessPrevented};

constinit const ItemSequence::Rule ItemSteps::kHasAttachment = {
    [](CHoardexFilter&) {
      if (!CurrentGroupPolicy()->AttachmentsPrevented()) return Outcome::kGive;
      ZK_LOG(
          L"CHoardexFilter::GetChunk() - PROP_HAS_ATTACHMENT - WDS Group policy is set to ignore all email "
          L"attachments");
      return Outcome::kUntouched;
    },
    kUnlessPrevented};

constinit const ItemSequence::Rule ItemSteps::kFlag = {
    [](CHoardexFilter& filter) {
      const SPropValue* status = filter.props(kMessage).at(12);
      filter.is_flagged_ = status && status->ulPropTag == PR_FLAG_STATUS && status->Value.l != 0;
      return Outcome::kGive;
    },
    "always"};

constinit const ItemSequence::Rule ItemSteps::kBody = {[](CHoardexFilter& filter) {
                                                         if (filter.ReadBody()) return Outcome::kGive;
                                                         filter.summary_text_ = L"...";
                                                         return Outcome::kSkip;
                                                       },
                                                       "when the message has a PR_BODY_W, whole or as a stream"};

constinit const ItemSequence::Rule ItemSteps::kNames = {
    [](CHoardexFilter& filter) {
      filter.child_urls_.clear();
      filter.child_times_.clear();
      if (CurrentGroupPolicy()->AttachmentsPrevented()) {
        ZK_LOG(
            L"CHoardexFilter::GetChunk() - PROP_ATTACHMENT_NAMES - WDS Group policy is set to ignore all email "
            L"attachments");
        return Outcome::kUntouched;
      }
      return filter.ReadAttachmentList() ? Outcome::kGive : Outcome::kSkip;
    },
    "when an attachment that the policy does not exclude has a name; prevented as step 37"};

constinit const ItemSequence::Rule ItemSteps::kLinks = {
    [](CHoardexFilter& filter) {
      const bool left = ++filter.link_index_ < static_cast<int>(filter.child_urls_.size());
      if (!CurrentGroupPolicy()->AttachmentsPrevented()) return left ? Outcome::kGive : Outcome::kEnd;
      ZK_LOG(
          L"CHoardexFilter::GetChunk() - PROP_ATTACHMENTS - WDS Group policy is set to ignore all email attachments");
      return left ? Outcome::kUntouched : Outcome::kEnd;
    },
    "again for each attachment with a record key, a time and a type that has a filter, once its value was taken"};

bool CHoardexFilter::ReadBody() {
  body_text_.clear();
  body_given_ = 0;
  body_stream_.Reset();
  TidyPropValues body;
  const HRESULT hr = body_result_ = mapi::HrGetOneProp(message_.Get(), PR_BODY_W, &body);
  if (body && body->ulPropTag != PR_BODY_W) {
    ZK_LOG(L"CHoardexFilter::GetChunk() - HrGetOneProp could not get PR_BODY, hr = [0x%08lX]", hr);
    return false;
  }
  if (hr == E_OUTOFMEMORY) {
    // Too large to come whole.
    const HRESULT opened = message_->OpenProperty(PR_BODY_W, &IID_IStream, 0, 0,
                                                  reinterpret_cast<LPUNKNOWN*>(body_stream_.ReleaseAndGetAddressOf()));
    if (FAILED(opened)) {
      ZK_LOG(L"CHoardexFilter::GetChunk() -\tOpenProperty for body failed with [0x%08lX]", opened);
      body_stream_.Reset();
      return false;
    }
  } else if (hr == MAPI_E_NOT_FOUND) {
    return false;
  } else if (!body || !body->Value.lpszW) {
    ZK_LOG(L"CHoardexFilter::GetChunk() -\tBody is\tNULL");
    return false;
  } else {
    body_text_ = body->Value.lpszW;
  }
  text_done_ = false;
  return true;
}
