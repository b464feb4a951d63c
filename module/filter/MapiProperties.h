// The MAPI properties that each item type is read for, in the order in which the rows of its steps count them.
#pragma once

#include <span>

#include "module/filter/HoardexFilter.h"
#include "platform/mapi_extra.h"

struct MapiProperty {
  ULONG tag;  // 0 for a named property
  LONG id;    // of a named property
  const char* name;
};

namespace mapi_properties {

#define ZK_TAG(tag) \
  { tag, 0, #tag }

inline constexpr MapiProperty kMessage[] = {ZK_TAG(PR_MESSAGE_DELIVERY_TIME),
                                            ZK_TAG(PR_DISPLAY_BCC_W),
                                            ZK_TAG(PR_DISPLAY_CC_W),
                                            ZK_TAG(PR_DISPLAY_TO_W),
                                            ZK_TAG(PR_MESSAGE_SIZE),
                                            ZK_TAG(PR_SUBJECT_W),
                                            ZK_TAG(PR_SENDER_NAME_W),
                                            ZK_TAG(PR_BODY_W),
                                            ZK_TAG(PR_CLIENT_SUBMIT_TIME),
                                            ZK_TAG(PR_SENDER_EMAIL_ADDRESS_W),
                                            ZK_TAG(PR_CREATION_TIME),
                                            ZK_TAG(PR_MESSAGE_FLAGS),
                                            ZK_TAG(PR_FLAG_STATUS),
                                            ZK_TAG(PR_CONVERSATION_INDEX),
                                            ZK_TAG(PR_SENT_REPRESENTING_NAME_W),
                                            ZK_TAG(PR_SENT_REPRESENTING_EMAIL_ADDRESS_W)};
inline constexpr MapiProperty kContact[] = {ZK_TAG(PR_DISPLAY_NAME_W),
                                            ZK_TAG(PR_COMPANY_NAME_W),
                                            ZK_TAG(PR_TITLE_W),
                                            ZK_TAG(PR_COMPANY_MAIN_PHONE_NUMBER_W),
                                            ZK_TAG(PR_HOME_TELEPHONE_NUMBER_W),
                                            ZK_TAG(PR_ASSISTANT_TELEPHONE_NUMBER_W),
                                            ZK_TAG(PR_MOBILE_TELEPHONE_NUMBER_W),
                                            ZK_TAG(PR_DEPARTMENT_NAME_W),
                                            ZK_TAG(PR_OFFICE_LOCATION_W),
                                            ZK_TAG(PR_PROFESSION_W),
                                            ZK_TAG(PR_MANAGER_NAME_W),
                                            ZK_TAG(PR_ASSISTANT_W)};
#undef ZK_TAG
inline constexpr MapiProperty kAppointment[] = {{0, 0x820D, "start"},
                                                {0, 0x820E, "end"},
                                                {0, 0x8205, "busy status"},
                                                {0, 0x8223, "recurring"},
                                                {0, 0x8208, "location"}};
inline constexpr MapiProperty kTask[] = {{0, 0x8104, "start date"}, {0, 0x8105, "due date"}, {0, 0x8126, "recurring"},
                                         {0, 0x811C, "complete"},   {0, 0x811F, "owner"},    {0, 0x8101, "status"}};
inline constexpr MapiProperty kContactNamed[] = {{0, 0x8005, "file under"},
                                                 {0, 0x8080, "e-mail 1 display name"},
                                                 {0, 0x8083, "e-mail 1 address"},
                                                 {0, 0x8062, "instant messaging address"}};
inline constexpr MapiProperty kNote[] = {
    {0, 0x8B00, "colour"}, {0, 0x8B02, "width"}, {0, 0x8B03, "height"}, {0, 0x8B04, "left"}, {0, 0x8B05, "top"}};

}  // namespace mapi_properties

// None for kNone.
inline std::span<const MapiProperty> PropertiesOf(PropertySource source) {
  using namespace mapi_properties;
  static constexpr std::span<const MapiProperty> kOf[kPropertySources + 1] = {
      kMessage, kAppointment, kTask, kContact, kContactNamed, kNote, {}};
  return kOf[static_cast<size_t>(source)];
}
