#include "tests/module/fault_expectations.h"

#include <algorithm>
#include <cstdio>

#include "platform/mapi_extra.h"

namespace faults {
namespace {

constexpr HRESULT kOutOfMemory = E_OUTOFMEMORY;

#define SESSION "CMapiForWDS::CreateMapiSession() "
#define NO_SESSION "CMapiForWDS::Setup() - CreateMapiSession failed with [0x%08lX]"
#define NO_SERVICE "CMapiForWDS::Setup() - AddService failed with [0x%08lX]"
#define NO_STORE "CMapiForWDS::Setup() - OpenPST failed with [0x%08lX]"
#define OLD_PROFILES "CMapiForWDS::CreateMapiSession() - Deletion of old profiles failed [0x%08lX]"
#define OLD_ROWS "CMapiForWDS::DeleteOldProfiles - GetProfileTable QueryRows failed [0x%08lX]"
#define SERVICE_ROWS "CMapiForWDS::AddService() - GetMsgServiceTable failed with [0x%08lX]"
#define STORE_ROWS "CMapiForWDS::OpenPST() - HrQueryAllRows on MsgStore table failed with [0x%08lX]"
#define CONTENTS "CMapiForWDS::GetFolderContents() - "
#define NO_MESSAGES "CMapiForWDS::BrowseFolder() - GetFolderContents for messages failed with [0x%08lX]"
#define NO_FOLDERS "CMapiForWDS::BrowseFolder() - GetFolderContents for sub-folders failed with [0x%08lX]"
#define PATH "CMapiForWDS::GetFolderPath() - returned [0x%08lX]. Folder path is [%s]"
#define EMPTY_PATH "CMapiForWDS::GetFolderPath() - returned [0x00000000]. Folder path is []"
#define NO_ID "CMapiForWDS::CStringToEntryID() - MapiAllocBuffer failed"
#define ATTACHED "CMapiForWDS::GetStreamFromAttachmentURL() - "
#define REPORTED \
  "GetLastError error is [%s]", "GetLastError component is [Hoardex message store]", "GetLastError code is [%s]"

using enum Operation;
using enum Stage;

// A row for each of the calls that fetch all rows of a table: the function, and what it calls itself.
#define ALL_ROWS(nth, ...)                                                                                            \
  {kSession, "HrQueryAllRows", nth, __VA_ARGS__}, {kSession, "IMAPITable::SetColumns", nth, __VA_ARGS__},             \
      {kSession, "IMAPITable::SeekRow", nth, __VA_ARGS__}, {kSession, "IMAPITable::GetRowCount", nth, __VA_ARGS__}, { \
    kSession, "IMAPITable::QueryRows", nth, __VA_ARGS__                                                               \
  }

// clang-format off
// A row for each call that lists a folder; `nth` counts the tables, and no container is asked for one of them twice.
#define LISTING(operation, nth, get, what, end) \
    {operation, "IMAPIContainer::" get, 1, kTheCode, kNone, {CONTENTS get " failed with [0x%08lX]", end}}, \
    {operation, "IMAPITable::SetColumns", nth, kTheCode, kNone, {CONTENTS "SetColumns for " what " failed with [0x%08lX]", \
     end}}, \
    {operation, "IMAPITable::GetRowCount", nth, kTheCode, kNone, {CONTENTS "GetRowCount failed with [0x%08lX]", end}}, \
    {operation, "IMAPITable::QueryRows", nth, kTheCode, kNone, {CONTENTS "QueryRows failed with [0x%08lX]", end}}

const CallExpectation kCalls[] = {
    {kSession, "MAPIInitialize", 1, kTheCode, kNone,
     {"CMapiForWDS::EnableMAPI() - MAPIInitialize return value [0x%08lX]",
     "CMapiForWDS::Setup() - EnableMAPI failed with [0x%08lX]"}},
    {kSession, "MAPIAdminProfiles", 1, kTheCode, kInitialized, {SESSION "- MAPIAdminProfiles failed [0x%08lX]",
     NO_SESSION}},
    // Old profiles that cannot be deleted do not hold the session up.
    {kSession, "IProfAdmin::GetProfileTable", 1, S_OK, kNone, {SESSION "- IMAPITable::GetProfileTable failed [0x%08lX]",
     OLD_PROFILES}},
    ALL_ROWS(1, S_OK, kNone, {OLD_ROWS, OLD_PROFILES}),
    {kSession, "IProfAdmin::DeleteProfile", 1, S_OK, kNone,
     {"CMapiForWDS::DeleteOldProfiles - DeleteProfile of old 'ZK_HX_10_1_2_3_4' profile failed [0x%08lX]",
     OLD_PROFILES}},
    {kSession, "IProfAdmin::DeleteProfile", 2, S_OK, kNone, {}},  // of the new name: there is none yet
    {kSession, "IProfAdmin::CreateProfile", 1, kTheCode, kInitialized,
     {SESSION "- CreateProfile of [ZK_HX_%s] failed with [0x%08lX]", REPORTED, NO_SESSION}},
    {kSession, "MAPILogonEx", 1, kTheCode, kInitialized, {SESSION "MAPILogonEx failed with [0x%08lX]", NO_SESSION}},
    {kSession, "IProfAdmin::DeleteProfile", 3, S_OK, kNone, {SESSION "- Second DeleteProfile failed with [0x%08lX]"}},
    {kSession, "IProfAdmin::AdminServices", 1, kTheCode, Stage::kLoggedOn,
     {SESSION "AdminServices failed with [0x%08lX]", NO_SESSION}},
    // The other kind of service is tried, and takes the path in the code page.
    {kSession, "IMsgServiceAdmin::CreateMsgService", 1, S_OK, kServices,
     {"CMapiForWDS::AddService() - Unicode CreateMsgService returned with [0x%08lX]",
     "CMapiForWDS::AddService() - ANSI CreateMsgService returned with [0x00000000]",
     "CMapiForWDS::ConfigurePST() - PR_PST_FILENAME"}},
    {kSession, "IMsgServiceAdmin::GetMsgServiceTable", 1, kTheCode, kServices, {SERVICE_ROWS, NO_SERVICE}},
    ALL_ROWS(2, kTheCode, kServices, {SERVICE_ROWS, NO_SERVICE}),
    {kSession, "IMsgServiceAdmin::ConfigureMsgService", 1, kTheCode, kServices,
     {"CMapiForWDS::ConfigurePST() - ConfigureMsgService failed with [0x%08lX]", REPORTED, NO_STORE}},
    {kSession, "IMAPISession::GetMsgStoresTable", 1, kTheCode, kServices,
     {"CMapiForWDS::OpenPST() - GetMsgStoresTable failed with [0x%08lX]", NO_STORE}},
    ALL_ROWS(3, kTheCode, kServices, {STORE_ROWS, NO_STORE}),
    {kSession, "MAPIAllocateBuffer", 1, kOutOfMemory, kServices,
     {"CMapiForWDS::OpenPST() - MAPIAllocateBuffer for entry ID failed with [0x%08lX]",
     "CMapiForWDS::Setup() - OpenPST failed with [0x8007000E]"}},
    {kSession, "IMAPISession::OpenMsgStore", 1, kTheCode, kEntryId,
     {"CMapiForWDS::OpenPST() - OpenMsgStore failed with [0x%08lX]", NO_STORE}},

    {kTop, "IMAPIProp::GetProps", 1, E_FAIL, kNone,
     {"CMapiForWDS::BrowseFolder() - GetProps for IPM root folder failed with [0x%08lX]"}},
    {kTop, "IMsgStore::OpenEntry", 1, E_FAIL, kNone,
     {"CMapiForWDS::BrowseFolder() - OpenEntry of IPM root folder failed\twith [0x%08lX]"}},
    LISTING(kTop, 1, "GetHierarchyTable", "sub-folders", NO_FOLDERS),
    // The top of the message tree is not known: the path stays empty, which is no failure.
    {kTop, "HrGetOneProp", 1, S_OK, kNone, {EMPTY_PATH}},
    {kTop, "IMAPIProp::GetProps", 2, S_OK, kNone, {EMPTY_PATH}},
    {kTop, "IMAPIProp::GetProps", 3, kTheCode, kNone, {PATH}},
    {kTop, "IMsgStore::CompareEntryIDs", 0, kTheCode, kNone, {PATH}},

    {kFolder, "MAPIAllocateBuffer", 1, E_FAIL, kNone, {NO_ID,
     "CMapiForWDS::BrowseFolder() - CStringToEntryID for folder\tfailed"}},
    {kFolder, "IMsgStore::OpenEntry", 1, kTheCode, kNone,
     {"CMapiForWDS::BrowseFolder() - OpenEntry for folder failed\twith [0x%08lX]"}},
    LISTING(kFolder, 1, "GetContentsTable", "messages", NO_MESSAGES),
    LISTING(kFolder, 2, "GetHierarchyTable", "sub-folders", NO_FOLDERS),
    {kFolder, "HrGetOneProp", 1, S_OK, kNone, {EMPTY_PATH}},
    {kFolder, "IMAPIProp::GetProps", 1, S_OK, kNone, {EMPTY_PATH}},
    {kFolder, "IMAPIProp::GetProps", 0, kTheCode, kNone, {PATH}},
    {kFolder, "IMsgStore::CompareEntryIDs", 0, kTheCode, kNone, {PATH}},
    {kFolder, "IMsgStore::OpenEntry", 0, kTheCode, kNone, {PATH}},

    {kMessage, "MAPIAllocateBuffer", 1, E_FAIL, kNone, {NO_ID,
     "CMapiForWDS::GetMsgFromURL() - CStringToEntryID failed"}},
    {kMessage, "IMsgStore::OpenEntry", 1, kTheCode, kNone,
     {"CMapiForWDS::GetMsgFromURL() - OpenEntry failed with [0x%08lX]"}},

    {kAttachment, "MAPIAllocateBuffer", 1, E_FAIL, kNone, {NO_ID,
     "CMapiForWDS::GetMsgFromURL() - CStringToEntryID failed",
     "CMapiForWDS::GetStreamFromAttachmentURL() : hr = 0x80004005, Failed to create IMessage object for url - %s"}},
    {kAttachment, "IMsgStore::OpenEntry", 1, kTheCode, kNone,
     {"CMapiForWDS::GetMsgFromURL() - OpenEntry failed with [0x%08lX]",
     "CMapiForWDS::GetStreamFromAttachmentURL() : hr = 0x%08lX, Failed to create IMessage object for url - %s"}},
    {kAttachment, "IMessage::GetAttachmentTable", 1, kTheCode, kNone,
     {ATTACHED "IMessage::GetAttachmentTable failed with error [0x%08lX]"}},
    {kAttachment, "IMAPITable::GetRowCount", 1, kTheCode, kNone,
     {ATTACHED "MapiTable::GetRowCount failed with error [0x%08lX]"}},
    {kAttachment, "IMAPITable::SetColumns", 1, kTheCode, kNone,
     {ATTACHED "SetColumns for attachment table failed with error [0x%08lX]"}},
    {kAttachment, "IMAPITable::QueryRows", 1, kTheCode, kNone,
     {ATTACHED "QueryRows for attachment table failed with [0x%08lX]"}},
    {kAttachment, "IMessage::OpenAttach", 1, kTheCode, kNone,
     {ATTACHED "pMessage->OpenAttach failed with error [0x%08lX]"}},
    {kAttachment, "IMAPIProp::OpenProperty", 1, kTheCode, kNone,
     {ATTACHED "pAttach->OpenProperty failure returned [0x%08lX]"}},

    {kClean, "IMsgServiceAdmin::DeleteMsgService", 1, S_OK, kNone,
     {"CMapiForWDS::RemoveService() - DeleteMsgService failed with [0x%08lX]"}},
};
// clang-format on

constexpr HRESULT kCellError = MAPI_E_NETWORK_ERROR;
constexpr auto kError = kHoardexMapiErrorCell;
constexpr auto kType = kHoardexMapiWrongType;
constexpr auto kNull = kHoardexMapiNullPointer;
constexpr auto kNoRows = kHoardexMapiNoRows;
constexpr auto kNoColumns = kHoardexMapiNoColumns;
constexpr auto kMoreRows = kHoardexMapiMoreRows;

// clang-format off
const SpoiltExpectation kSpoilt[] = {
    // The stale profile is not recognised, and the session does not mind.
    {kSession, "IMAPITable::QueryRows", 1, {kError, kType, kNull, kNoRows, kNoColumns}, 0, S_OK, {}},
    {kSession, "IMAPITable::QueryRows", 2, {kNoRows, kNoColumns, kMoreRows}, 0, E_FAIL,
     {"CMapiForWDS::AddService() - Number of rows inconsistent with expectations",
     "CMapiForWDS::Setup() - AddService failed with [0x80004005]"}},
    {kSession, "IMAPITable::QueryRows", 2, {kError}, 0, kCellError,
     {"CMapiForWDS::AddService() - Property tag not correct [0x%08lX]", NO_SERVICE}},
    {kSession, "IMAPITable::QueryRows", 2, {kType, kNull}, 0, E_FAIL,
     {"CMapiForWDS::Setup() - AddService failed with [0x80004005]"}},
    {kSession, "IMAPITable::QueryRows", 3, {kNoRows, kNoColumns, kMoreRows}, 0, E_FAIL,
     {"CMapiForWDS::OpenPST() - Number of rows and columns in rowset and row are not as expected",
     "CMapiForWDS::Setup() - OpenPST failed with [0x80004005]"}},
    {kSession, "IMAPITable::QueryRows", 3, {kError}, 0, kCellError,
     {"CMapiForWDS::OpenPST() - Property tag not correct, error is [0x%08lX]", NO_STORE}},
    {kSession, "IMAPITable::QueryRows", 3, {kType, kNull}, 0, E_FAIL,
     {"CMapiForWDS::OpenPST() - Property tag not as expected",
     "CMapiForWDS::Setup() - OpenPST failed with [0x80004005]"}},
    {kTop, "IMAPIProp::GetProps", 1, {kError, kType, kNull, kNoRows}, 0, E_FAIL,
     {"CMapiForWDS::BrowseFolder() - GetProps for IPM root folder failed with [0x00000000]"}},
    {kTop, "IMAPIProp::GetProps", 2, {kError, kType, kNull, kNoRows}, 0, S_OK, {EMPTY_PATH}},
    {kFolder, "IMAPITable::QueryRows", 1, {kError, kType}, 3, S_OK,
     {CONTENTS "Last modification time property of message not set"}},
    {kAttachment, "IMAPITable::QueryRows", 1, {kNoRows, kNoColumns}, 0, E_FAIL, {}},
    {kAttachment, "IMAPITable::QueryRows", 1, {kError, kType, kNull}, 0, E_FAIL, {}},
    {kAttachment, "IMAPITable::QueryRows", 1, {kError, kType}, 1, E_FAIL, {}},
    {kAttachment, "IMAPITable::QueryRows", 1, {kMoreRows}, 0, S_OK, {}},
};
// clang-format on

// Whether `line` is `format` with anything for each %s.
bool Matches(std::string_view line, std::string_view format) {
  const size_t hole = format.find("%s");
  if (hole == std::string_view::npos) return line == format;
  if (line.substr(0, hole) != format.substr(0, hole)) return false;
  const std::string_view rest = format.substr(hole + 2);
  for (size_t at = hole; at <= line.size(); ++at)
    if (Matches(line.substr(at), rest)) return true;
  return false;
}

}  // namespace

const CallExpectation* ExpectationOf(Operation operation, const std::string& call, long nth) {
  const CallExpectation* any = nullptr;
  for (const CallExpectation& row : kCalls) {
    if (row.operation != operation || row.call != call) continue;
    if (row.nth == nth) return &row;
    if (!row.nth) any = &row;
  }
  return any;
}

std::span<const SpoiltExpectation> SpoiltExpectations() {
  return kSpoilt;
}

bool HasLine(const std::vector<std::string>& lines, const std::string& format, HRESULT code) {
  char hexadecimal[16];
  snprintf(hexadecimal, sizeof(hexadecimal), "0x%08lX", code);
  std::string wanted = format;
  for (size_t at; (at = wanted.find("0x%08lX")) != std::string::npos;) wanted.replace(at, 7, hexadecimal);
  return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) { return Matches(line, wanted); });
}

}  // namespace faults
