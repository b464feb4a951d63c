// The Windows properties that the filter emits, with the names of the property schema. Values are those of the Windows
// SDK's propkey.h.
#pragma once

#include <windows.h>

#include <propsys.h>

struct Property {
  PROPERTYKEY key;
  const char* name;  // the canonical one
};

namespace key {

// A property of the format identifier whose text is given, without braces.
consteval Property Make(const char* name, const char* format, DWORD number) {
  BYTE bytes[16] = {};
  int digits = 0;
  for (; *format; ++format) {
    if (*format == '-') continue;
    const int digit = *format <= '9' ? *format - '0' : *format - 'A' + 10;
    BYTE& byte = bytes[digits++ / 2];  // a digit too many is refused here
    byte = static_cast<BYTE>(byte * 16 + digit);
  }
  if (digits != 32) throw "no format identifier";
  GUID id = {static_cast<ULONG>(bytes[0]) << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3],
             static_cast<USHORT>(bytes[4] << 8 | bytes[5]),
             static_cast<USHORT>(bytes[6] << 8 | bytes[7]),
             {}};
  for (int i = 0; i < 8; ++i) id.Data4[i] = bytes[8 + i];
  return {{id, number}, name};
}

inline constexpr char kMail[] = "E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD";
inline constexpr char kStorage[] = "B725F130-47EF-101A-A5F1-02608C9EEBAC";
inline constexpr char kSummary[] = "F29F85E0-4FF9-1068-AB91-08002B27B3D9";
inline constexpr char kDocument[] = "D5CDD502-2E9C-101B-9397-08002B2CF9AE";
inline constexpr char kContact[] = "176DC63C-2688-4E89-8143-A347800F25E9";
inline constexpr char kGatherer[] = "0B63E343-9CCC-11D0-BCDB-00805FCCCE04";
inline constexpr char kShellDetails[] = "28636AA6-953D-11D2-B5D6-00C04FD918D0";

inline constexpr Property Author = Make("System.Author", kSummary, 4);
inline constexpr Property CalendarIsRecurring =
    Make("System.Calendar.IsRecurring", "315B9C8D-80A9-4EF9-AE16-8E746DA51D70", 100);
inline constexpr Property CalendarLocation =
    Make("System.Calendar.Location", "F6272D18-CECC-40B1-B26A-3911717AA7BD", 100);
inline constexpr Property OptionalAttendeeAddresses =
    Make("System.Calendar.OptionalAttendeeAddresses", "D55BAE5A-3892-417A-A649-C6AC5AAAEAB3", 100);
inline constexpr Property OptionalAttendeeNames =
    Make("System.Calendar.OptionalAttendeeNames", "09429607-582D-437F-84C3-DE93A2B24C3C", 100);
inline constexpr Property OrganizerAddress =
    Make("System.Calendar.OrganizerAddress", "744C8242-4DF5-456C-AB9E-014EFB9021E3", 100);
inline constexpr Property OrganizerName =
    Make("System.Calendar.OrganizerName", "AAA660F9-9865-458E-B484-01BC7FE3973E", 100);
inline constexpr Property RequiredAttendeeAddresses =
    Make("System.Calendar.RequiredAttendeeAddresses", "0BA7D6C3-568D-4159-AB91-781A91FB71E5", 100);
inline constexpr Property RequiredAttendeeNames =
    Make("System.Calendar.RequiredAttendeeNames", "B33AF30B-F552-4584-936C-CB93E5CDA29F", 100);
inline constexpr Property CalendarShowTimeAs =
    Make("System.Calendar.ShowTimeAs", "5BF396D4-5EB2-466F-BDE9-2FB3F2361D6E", 100);
inline constexpr Property TaskStatus =
    Make("System.Communication.TaskStatus", "BE1A72C6-9A1D-46B7-AFE7-AFAF8CEF4999", 100);
inline constexpr Property Company = Make("System.Company", kDocument, 15);
inline constexpr Property ContactAssistantName =
    Make("System.Contact.AssistantName", "CD102C9C-5540-4A88-A6F6-64E4981C8CD1", 100);
inline constexpr Property ContactAssistantTelephone =
    Make("System.Contact.AssistantTelephone", "9A93244D-A7AD-4FF8-9B99-45EE4CC09AF6", 100);
inline constexpr Property ContactCompanyTelephone =
    Make("System.Contact.CompanyMainTelephone", "8589E481-6040-473D-B171-7FA89C2708ED", 100);
inline constexpr Property ContactDepartment =
    Make("System.Contact.Department", "FC9F7306-FF8F-4D49-9FB6-3FFE5C0951EC", 100);
inline constexpr Property ContactEmailAddress =
    Make("System.Contact.EmailAddress", "F8FA7FA3-D12B-4785-8A4E-691A94F7A3E7", 100);
inline constexpr Property ContactEmailName =
    Make("System.Contact.EmailName", "CC6F4F24-6083-4BD4-8754-674D0DE87AB8", 100);
inline constexpr Property ContactFileAsName =
    Make("System.Contact.FileAsName", "F1A24AA7-9CA7-40F6-89EC-97DEF9FFE8DB", 100);
inline constexpr Property ContactFullName =
    Make("System.Contact.FullName", "635E9051-50A5-4BA2-B9DB-4ED056C77296", 100);
inline constexpr Property HomeTelephone = Make("System.Contact.HomeTelephone", kContact, 20);
inline constexpr Property ContactIMAddress =
    Make("System.Contact.IMAddress", "D68DBD8A-3374-4B81-9972-3EC30682DB3D", 100);
inline constexpr Property JobTitle = Make("System.Contact.JobTitle", kContact, 6);
inline constexpr Property MobileTelephone = Make("System.Contact.MobileTelephone", kContact, 35);
inline constexpr Property OfficeLocation = Make("System.Contact.OfficeLocation", kContact, 7);
inline constexpr Property ContactProfession =
    Make("System.Contact.Profession", "7268AF55-1CE4-4F6E-A41F-B6E4EF10E4A9", 100);
inline constexpr Property DateCreated = Make("System.DateCreated", kStorage, 15);
inline constexpr Property Manager = Make("System.Document.Manager", kDocument, 14);
inline constexpr Property DueDate = Make("System.DueDate", "3F8472B5-E0AF-4DB2-8071-C53FE76AE7CE", 100);
inline constexpr Property EndDate = Make("System.EndDate", "C75FAA05-96FD-49E7-9CB4-9F601082D553", 100);
inline constexpr Property FileExtension = Make("System.FileExtension", "E4F10A3C-49E6-405D-8288-A23BD4EEAA6C", 100);
inline constexpr Property FileName = Make("System.FileName", "41CF5AE0-F75A-4806-BD87-59C7D9248EB9", 100);
inline constexpr Property IsAttachment = Make("System.IsAttachment", "F23F425C-71A1-4FA8-922F-678EA4A60408", 100);
inline constexpr Property IsDeleted = Make("System.IsDeleted", "5CDA5FC8-33EE-4FF3-9094-AE7BD8868C4D", 100);
inline constexpr Property IsFlagged = Make("System.IsFlagged", "5DA84765-E3FF-4278-86B0-A27967FBDD03", 100);
inline constexpr Property IsFlaggedComplete =
    Make("System.IsFlaggedComplete", "A6F360D2-55F9-48DE-B909-620E090A647C", 100);
inline constexpr Property IsRead = Make("System.IsRead", kMail, 10);
inline constexpr Property ItemDate = Make("System.ItemDate", "F7DB74B4-4287-4103-AFBA-F1B13DCD75CF", 100);
inline constexpr Property ItemFolderNameDisplay = Make("System.ItemFolderNameDisplay", kStorage, 2);
inline constexpr Property ItemFolderPathDisplay = Make("System.ItemFolderPathDisplay", kMail, 6);
inline constexpr Property ItemFolderPathDisplayNarrow =
    Make("System.ItemFolderPathDisplayNarrow", "DABD30ED-0043-4789-A7F8-D013A4736622", 100);
inline constexpr Property ItemName = Make("System.ItemName", "6B8DA074-3B5C-43BC-886F-0A2CDCE00B6F", 100);
inline constexpr Property ItemPathDisplay = Make("System.ItemPathDisplay", kMail, 7);
inline constexpr Property ItemType = Make("System.ItemType", kShellDetails, 11);
inline constexpr Property ItemTypeText = Make("System.ItemTypeText", kStorage, 4);
inline constexpr Property Kind = Make("System.Kind", "1E3EE840-BC2B-476C-8237-2ACD1A839B22", 3);
inline constexpr Property AttachmentNames = Make("System.Message.AttachmentNames", kMail, 21);
inline constexpr Property BccAddress = Make("System.Message.BccAddress", kMail, 2);
inline constexpr Property BccName = Make("System.Message.BccName", kMail, 3);
inline constexpr Property CcAddress = Make("System.Message.CcAddress", kMail, 4);
inline constexpr Property CcName = Make("System.Message.CcName", kMail, 5);
inline constexpr Property ConversationID =
    Make("System.Message.ConversationID", "DC8F80BD-AF1E-4289-85B6-3DFC1B493992", 100);
inline constexpr Property DateReceived = Make("System.Message.DateReceived", kMail, 20);
inline constexpr Property DateSent = Make("System.Message.DateSent", kMail, 19);
inline constexpr Property FromAddress = Make("System.Message.FromAddress", kMail, 13);
inline constexpr Property FromName = Make("System.Message.FromName", kMail, 14);
inline constexpr Property HasAttachments =
    Make("System.Message.HasAttachments", "9C1FCF74-2D97-41BA-B4AE-CB2E3661A6E4", 8);
inline constexpr Property SenderAddress =
    Make("System.Message.SenderAddress", "0BE1C8E7-1981-4676-AE14-FDD78F05A6E7", 100);
inline constexpr Property SenderName = Make("System.Message.SenderName", "0DA41CFA-D224-4A18-AE2F-596158DB4B3A", 100);
inline constexpr Property ToAddress = Make("System.Message.ToAddress", kMail, 16);
inline constexpr Property ToName = Make("System.Message.ToName", kMail, 17);
inline constexpr Property NoteColor = Make("System.Note.Color", "4776CAFA-BCE4-4CB1-A23E-265E76D8EB11", 100);
inline constexpr Property AutoSummary = Make("System.Search.AutoSummary", "560C36C0-503A-11CF-BAA1-00004C752A9A", 2);
inline constexpr Property Contents = Make("System.Search.Contents", kStorage, 19);
inline constexpr Property UrlToIndexWithModificationTime =
    Make("System.Search.UrlToIndexWithModificationTime", kGatherer, 12);
inline constexpr Property Size = Make("System.Size", kStorage, 12);
inline constexpr Property StartDate = Make("System.StartDate", "48FD6EC8-8A12-4CDF-A03E-4EC5A511EDDE", 100);
inline constexpr Property Subject = Make("System.Subject", kSummary, 3);
inline constexpr Property TaskOwner = Make("System.Task.Owner", "08C7CC5F-60F2-4494-AD75-55E3E0B5ADD0", 100);
inline constexpr Property Title = Make("System.Title", kSummary, 2);

}  // namespace key
