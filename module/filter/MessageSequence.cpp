#include "module/filter/MessageSequence.h"

#include <iterator>

#include "module/core/SCLog.h"
#include "module/core/Text.h"
#include "module/core/resource.h"
#include "module/filter/ItemTypes.h"
#include "module/filter/PropertyKeys.h"

#include <filterr.h>

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexFilter";

}  // namespace

#define NOTE &CHoardexFilter::note_props_
#define CONTACT &CHoardexFilter::contact_props_
#define NAMED &CHoardexFilter::contact_named_props_
#define TASK &CHoardexFilter::task_props_
#define APPOINTMENT &CHoardexFilter::calendar_props_
#define MESSAGE &CHoardexFilter::message_props_
#define STRING(member) Member<&CHoardexFilter::member>

const MessageSequence::Row MessageSequence::kRows[kSteps] = {
    /*  0 */ {NOTE, 0, PT_LONG, 0, &key::NoteColor, Short, nullptr},
    /*  1 */ {CONTACT, 0, PT_UNICODE, 0, &key::ContactFullName, Text, nullptr},
    /*  2 */ {CONTACT, 1, PT_UNICODE, 0, &key::Company, Text, nullptr},
    /*  3 */ {CONTACT, 2, PT_UNICODE, 0, &key::JobTitle, Text, nullptr},
    /*  4 */ {NAMED, 0, PT_STRING8, 0, &key::ContactFileAsName, NarrowText, nullptr},
    /*  5 */ {NAMED, 1, PT_STRING8, 0, &key::ContactEmailName, NarrowText, nullptr},
    /*  6 */ {NAMED, 2, PT_STRING8, 0, &key::ContactEmailAddress, NarrowText, nullptr},
    /*  7 */ {NAMED, 3, PT_STRING8, 0, &key::ContactIMAddress, NarrowText, nullptr},
    /*  8 */ {CONTACT, 3, PT_UNICODE, 0, &key::ContactCompanyTelephone, Text, nullptr},
    /*  9 */ {CONTACT, 4, PT_UNICODE, 0, &key::HomeTelephone, Text, nullptr},
    /* 10 */ {CONTACT, 5, PT_UNICODE, 0, &key::ContactAssistantTelephone, Text, nullptr},
    /* 11 */ {CONTACT, 6, PT_UNICODE, 0, &key::MobileTelephone, Text, nullptr},
    /* 12 */ {CONTACT, 7, PT_UNICODE, 0, &key::ContactDepartment, Text, nullptr},
    /* 13 */ {CONTACT, 8, PT_UNICODE, 0, &key::OfficeLocation, Text, nullptr},
    /* 14 */ {CONTACT, 9, PT_UNICODE, 0, &key::ContactProfession, Text, nullptr},
    /* 15 */ {CONTACT, 10, PT_UNICODE, 0, &key::Manager, Text, nullptr},
    /* 16 */ {CONTACT, 11, PT_UNICODE, 0, &key::ContactAssistantName, Text, nullptr},
    /* 17 */ {TASK, 0, PT_SYSTIME, 0, &key::StartDate, Time, nullptr},
    /* 18 */ {TASK, 1, PT_SYSTIME, 0, &key::DueDate, Time, nullptr},
    /* 19 */ {TASK, 2, PT_BOOLEAN, 0, &key::CalendarIsRecurring, Truth, nullptr},
    /* 20 */ {TASK, 3, PT_BOOLEAN, 0, &key::IsFlaggedComplete, Truth, nullptr},
    /* 21 */ {TASK, 4, PT_STRING8, 0, &key::TaskOwner, NarrowText, nullptr},
    /* 22 */ {TASK, 5, PT_LONG, 0, &key::TaskStatus, Short, nullptr},
    /* 23 */ {APPOINTMENT, 0, PT_SYSTIME, 0, &key::StartDate, Time, nullptr},
    /* 24 */ {APPOINTMENT, 1, PT_SYSTIME, 0, &key::EndDate, Time, nullptr},
    /* 25 */ {APPOINTMENT, 2, PT_LONG, 0, &key::CalendarShowTimeAs, Short, nullptr},
    /* 26 */ {APPOINTMENT, 3, PT_BOOLEAN, 0, &key::CalendarIsRecurring, Truth, nullptr},
    /* 27 */ {APPOINTMENT, 4, PT_STRING8, 0, &key::CalendarLocation, NarrowText, nullptr},
    /* 28 */ {MESSAGE, 3, PR_DISPLAY_TO_W, kAppointment, &key::RequiredAttendeeNames, Text, nullptr},
    /* 29 */ {nullptr, 0, 0, kAppointment, &key::RequiredAttendeeAddresses, STRING(to_addresses_), nullptr},
    /* 30 */ {MESSAGE, 2, PR_DISPLAY_CC_W, kAppointment, &key::OptionalAttendeeNames, Text, nullptr},
    /* 31 */ {nullptr, 0, 0, kAppointment, &key::OptionalAttendeeAddresses, STRING(cc_addresses_), nullptr},
    /* 32 */ {nullptr, 0, 0, 0, &key::ItemPathDisplay, RootName, nullptr},
    /* 33 */ {nullptr, 0, 0, 0, &key::ItemType, TypeName, nullptr},
    /* 34 */ {nullptr, 0, 0, 0, &key::ItemFolderPathDisplayNarrow, RootName, nullptr},
    /* 35 */ {nullptr, 0, 0, 0, &key::ItemFolderPathDisplay, RootName, nullptr},
    /* 36 */ {nullptr, 0, 0, 0, &key::ItemTypeText, TypeText, nullptr},
    /* 37 */ {nullptr, 0, 0, 0, &key::IsAttachment, False, IsAttachmentStep},
    /* 38 */ {nullptr, 0, 0, 0, &key::ItemName, Subject, nullptr},
    /* 39 */ {MESSAGE, 6, PR_SENDER_NAME_W, 0, &key::Author, Text, nullptr},
    /* 40 */ {MESSAGE, 0, PR_MESSAGE_DELIVERY_TIME, 0, &key::ItemDate, Time, nullptr},
    /* 41 */ {nullptr, 0, 0, 0, &key::ItemFolderNameDisplay, RootName, nullptr},
    /* 42 */ {nullptr, 0, 0, 0, &key::Kind, KindText, nullptr},
    /* 43 */ {nullptr, 0, 0, 0, &key::ToAddress, STRING(to_addresses_), nullptr},
    /* 44 */ {nullptr, 0, 0, 0, &key::CcAddress, STRING(cc_addresses_), nullptr},
    /* 45 */ {nullptr, 0, 0, 0, &key::BccAddress, STRING(bcc_addresses_), nullptr},
    /* 46 */ {MESSAGE, 9, PR_SENDER_EMAIL_ADDRESS_W, 0, &key::FromAddress, Address, nullptr},
    /* 47 */ {MESSAGE, 6, PR_SENDER_NAME_W, 0, &key::SenderName, Text, nullptr},
    /* 48 */ {nullptr, 0, 0, 0, &key::Title, Subject, nullptr},
    /* 49 */ {nullptr, 0, 0, 0, &key::IsDeleted, False, nullptr},
    /* 50 */ {MESSAGE, 0, PR_MESSAGE_DELIVERY_TIME, 0, &key::DateReceived, Time, nullptr},
    /* 51 */ {MESSAGE, 1, PR_DISPLAY_BCC_W, kNonEmpty, &key::BccName, Text, nullptr},
    /* 52 */ {MESSAGE, 2, PR_DISPLAY_CC_W, kNonEmpty, &key::CcName, Text, nullptr},
    /* 53 */ {MESSAGE, 3, PR_DISPLAY_TO_W, kNonEmpty, &key::ToName, Text, nullptr},
    /* 54 */ {MESSAGE, 4, PR_MESSAGE_SIZE, 0, &key::Size, Long, nullptr},
    /* 55 */ {nullptr, 0, 0, 0, &key::Subject, Subject, nullptr},
    /* 56 */ {MESSAGE, 6, PR_SENDER_NAME_W, 0, &key::FromName, Text, nullptr},
    /* 57 */ {nullptr, 0, 0, 0, &key::Contents, nullptr, BodyStep},
    /* 58 */ {MESSAGE, 8, PR_CLIENT_SUBMIT_TIME, 0, &key::DateSent, Time, nullptr},
    /* 59 */ {MESSAGE, 9, PR_SENDER_EMAIL_ADDRESS_W, 0, &key::SenderAddress, Address, nullptr},
    /* 60 */ {MESSAGE, 10, PR_CREATION_TIME, 0, &key::DateCreated, Time, nullptr},
    /* 61 */ {MESSAGE, 11, PR_MESSAGE_FLAGS, 0, &key::IsRead, Read, nullptr},
    /* 62 */ {nullptr, 0, 0, 0, &key::IsFlagged, Flagged, FlagStep},
    /* 63 */ {MESSAGE, 13, PR_CONVERSATION_INDEX, 0, &key::ConversationID, Hexadecimal, nullptr},
    /* 64 */ {MESSAGE, 14, PR_SENT_REPRESENTING_NAME_W, 0, &key::OrganizerName, Text, nullptr},
    /* 65 */ {MESSAGE, 15, PR_SENT_REPRESENTING_EMAIL_ADDRESS_W, kAppointment, &key::OrganizerAddress, Address, nullptr},
    /* 66 */ {nullptr, 0, 0, 0, &key::AutoSummary, STRING(summary_text_), nullptr},
    /* 67 */ {nullptr, 0, 0, 0, &key::AttachmentNames, STRING(attachment_names_), NamesStep},
    /* 68 */ {nullptr, 0, 0, 0, &key::HasAttachments, HasNames, HasAttachmentStep},
    /* 69 */ {nullptr, 0, 0, 0, &key::UrlToIndexWithModificationTime, Link, LinkStep},
};

#undef NOTE
#undef CONTACT
#undef NAMED
#undef TASK
#undef APPOINTMENT
#undef MESSAGE
#undef STRING

const MessageSequence::Row& MessageSequence::At(int step) { return kRows[step]; }

bool MessageSequence::Applies(const Row& row, const CHoardexFilter& filter, const SPropValue** element) {
  *element = nullptr;
  if ((row.flags & kAppointment) && !filter.calendar_props_) return false;
  if (!row.set) return true;
  const SPropValue* found = (filter.*row.set).at(row.index);
  if (!found) return false;
  const bool whole_tag = row.match > 0xFFFF;
  if (row.match != (whole_tag ? found->ulPropTag : PROP_TYPE(found->ulPropTag))) return false;
  if ((row.flags & kNonEmpty) && !(found->Value.lpszW && *found->Value.lpszW)) return false;
  *element = found;
  return true;
}

bool CHoardexFilter::OpenMessage() {
  for (PropertySet* set :
       {&message_props_, &calendar_props_, &task_props_, &contact_props_, &contact_named_props_, &note_props_})
    set->Release();
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

HRESULT CHoardexFilter::NextMessageChunk(STAT_CHUNK* stat) {
  using Outcome = MessageSequence::Outcome;
  if (message_step_ == kMessageStart && !OpenMessage()) return End();
  for (;;) {
    ++message_step_;
    ZK_LOG_DETAIL(L"CHoardexFilter::GetChunk() - GetChunk Msg Props Counted [%d]", message_step_);
    const int step = message_step_ - MessageSequence::kFirstStep;
    if (step >= MessageSequence::kSteps) {
      message_step_ = kMessageStart;
      return End();
    }
    const MessageSequence::Row& row = MessageSequence::At(step);
    const SPropValue* element;
    if (!MessageSequence::Applies(row, *this, &element)) continue;
    const Outcome outcome = row.prepare ? row.prepare(*this) : Outcome::kGive;
    if (outcome == Outcome::kSkip) continue;
    if (outcome == Outcome::kUntouched) return S_OK;  // the step is used up all the same
    if (outcome == Outcome::kEnd) return End();
    Fill(stat, *row.key, row.make ? CHUNK_VALUE : CHUNK_TEXT);
    return S_OK;
  }
}

MessageSequence::Outcome MessageSequence::IsAttachmentStep(CHoardexFilter&) {
  if (!CurrentGroupPolicy()->AttachmentsPrevented()) return Outcome::kGive;
  ZK_LOG(L"CHoardexFilter::GetChunk() - PROP_IS_ATTACHMENT - WDS Group policy is set to ignore all email attachments");
  return Outcome::kUntouched;
}

MessageSequence::Outcome MessageSequence::HasAttachmentStep(CHoardexFilter&) {
  if (!CurrentGroupPolicy()->AttachmentsPrevented()) return Outcome::kGive;
  ZK_LOG(L"CHoardexFilter::GetChunk() - PROP_HAS_ATTACHMENT - WDS Group policy is set to ignore all email attachments");
  return Outcome::kUntouched;
}

MessageSequence::Outcome MessageSequence::FlagStep(CHoardexFilter& filter) {
  const SPropValue* status = filter.message_props_.at(12);
  filter.is_flagged_ = status && status->ulPropTag == PR_FLAG_STATUS && status->Value.l != 0;
  return Outcome::kGive;
}

MessageSequence::Outcome MessageSequence::BodyStep(CHoardexFilter& filter) {
  filter.body_text_.clear();
  filter.body_given_ = 0;
  filter.body_stream_.Reset();
  TidyPropValues body;
  const HRESULT hr = filter.body_result_ = mapi::HrGetOneProp(filter.message_.Get(), PR_BODY_W, &body);
  const auto none = [&filter] {
    filter.summary_text_ = L"...";
    return Outcome::kSkip;
  };
  if (body && body->ulPropTag != PR_BODY_W) {
    ZK_LOG(L"CHoardexFilter::GetChunk() - HrGetOneProp could not get PR_BODY, hr = [0x%08lX]", hr);
    return none();
  }
  if (hr == E_OUTOFMEMORY) {
    // Too large to come whole.
    const HRESULT opened = filter.message_->OpenProperty(
        PR_BODY_W, &IID_IStream, 0, 0, reinterpret_cast<LPUNKNOWN*>(filter.body_stream_.ReleaseAndGetAddressOf()));
    if (FAILED(opened)) {
      ZK_LOG(L"CHoardexFilter::GetChunk() -\tOpenProperty for body failed with [0x%08lX]", opened);
      filter.body_stream_.Reset();
      return none();
    }
  } else if (hr == MAPI_E_NOT_FOUND) {
    return none();
  } else if (!body || !body->Value.lpszW) {
    ZK_LOG(L"CHoardexFilter::GetChunk() -\tBody is\tNULL");
    return none();
  } else {
    filter.body_text_ = body->Value.lpszW;
  }
  filter.text_done_ = false;
  return Outcome::kGive;
}

MessageSequence::Outcome MessageSequence::NamesStep(CHoardexFilter& filter) {
  filter.child_urls_.clear();
  filter.child_times_.clear();
  if (CurrentGroupPolicy()->AttachmentsPrevented()) {
    ZK_LOG(L"CHoardexFilter::GetChunk() - PROP_ATTACHMENT_NAMES - WDS Group policy is set to ignore all email "
           L"attachments");
    return Outcome::kUntouched;
  }
  return filter.ReadAttachmentList() ? Outcome::kGive : Outcome::kSkip;
}

MessageSequence::Outcome MessageSequence::LinkStep(CHoardexFilter& filter) {
  const bool left = ++filter.link_index_ < static_cast<int>(filter.child_urls_.size());
  if (CurrentGroupPolicy()->AttachmentsPrevented()) {
    ZK_LOG(L"CHoardexFilter::GetChunk() - PROP_ATTACHMENTS - WDS Group policy is set to ignore all email attachments");
    return left ? Outcome::kUntouched : Outcome::kEnd;
  }
  return left ? Outcome::kGive : Outcome::kEnd;
}
