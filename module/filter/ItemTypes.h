// The five item types: their names in the registry and in search, display texts, and Windows kinds.
#pragma once

#include <windows.h>

#include "module/core/resource.h"
#include "module/filter/HoardexFilter.h"

struct ItemType {
  ItemKind kind;
  const wchar_t* name;  // System.ItemType, and the key under HKEY_CLASSES_ROOT
  UINT text;            // string resource of the display text
  const wchar_t* windows_kind;
};

inline constexpr ItemType kItemTypes[] = {
    {ItemKind::kEmail, L"MAPI/ZK.Message", IDS_TYPE_MESSAGE, L"email;communication"},
    {ItemKind::kAppointment, L"MAPI/ZK.Appointment", IDS_TYPE_APPOINTMENT, L"calendar;communication"},
    {ItemKind::kTask, L"MAPI/ZK.Task", IDS_TYPE_TASK, L"task;taskrequest;communication"},
    {ItemKind::kContact, L"MAPI/ZK.Contact", IDS_TYPE_CONTACT, L"contact;communication"},
    {ItemKind::kNote, L"MAPI/ZK.Note", IDS_TYPE_NOTE, L"note;stickynote;communication"},
};

inline const ItemType& TypeOf(ItemKind kind) {
  for (const ItemType& type : kItemTypes)
    if (type.kind == kind) return type;
  return kItemTypes[0];
}
