// One MAPI session and open store per vault file, shared by every item URL that names the file.
//
// GetMapiObj is the one way in. The process-wide table shares each object with those who work with it: CleanMapiObjs
// lets go of it, and the last one to do so tears the session down. An entry of the table holds the module. The objects
// have no lock of their own: MAPI is initialised for several threads.
#pragma once

#include <windows.h>

#include <wrl/client.h>

#include <memory>
#include <string>
#include <vector>

#include "module/mapi/MapiLoader.h"
#include "module/mapi/TidyMapi.h"

class CMapiForWDS {
 public:
  // The object for the URL's vault file, made and set up on first use; null when the URL names no vault file or the
  // set-up fails. An object whose set-up failed stays as it is and is not kept in the table.
  // `set_up`, where given, is the set-up's result if there was one.
  static std::shared_ptr<CMapiForWDS> GetMapiObj(std::wstring item_url, HRESULT* set_up = nullptr);
  // Empties the table. Objects that nobody works with are torn down before it returns, the others by their last user.
  static void CleanMapiObjs();

  // Gives the table back when the module is unloaded; nobody may be in it, and nothing here is called afterwards.
  static void ReleaseTable();

  // The message that a message URL names.
  HRESULT GetMsgFromURL(const std::wstring& message_url, LPMESSAGE* message);
  // The content of the attachment that an attachment URL names: the first of that display name, ignoring case.
  HRESULT GetStreamFromAttachmentURL(const std::wstring& attachment_url, IStream** stream);
  // The message as MIME text in memory, base64, as the mail client's converter writes it; the URL's size group is
  // ignored. Handed out as the converter leaves it: the caller seeks.
  HRESULT GetMimeStreamFromMessageURL(const std::wstring& url, IStream** stream);
  // Writes the message to a .msg file (compound file), replacing one that is there. A failed save leaves its part.
  static HRESULT SaveToMSG(const std::wstring& path, LPMESSAGE source);
  // Names and times of what the container holds: messages first, then sub-folders, and the folder's display path below
  // the top of the message tree. The store itself lists sub-folders only.
  HRESULT BrowseFolder(const std::wstring& folder_url, std::wstring& path, std::vector<std::wstring>& names,
                       std::vector<FILETIME>& times);

  // The file's last-write time, UTC. Needs no session.
  static BOOL GetLastModifiedFileTime(const std::wstring& path, FILETIME* time);

  // Reads hexadecimal digits into a buffer of half the text's length, which the caller frees with MAPIFreeBuffer. The
  // conversion stops at the first character that is no digit and what follows stays as allocated, deliberately: a
  // message's name carries its size behind the digits, and MAPI accepts the longer entry identifier.
  static SBinary CStringToEntryID(const std::wstring& hex);
  // Pairs of hexadecimal digits of either case to bytes; FALSE at the first pair that is none.
  static BOOL FBinFromHexEx(const char* text, BYTE* bytes);
  // MAPI's upper-case hexadecimal text of a binary value (up to 511 bytes of it).
  static std::wstring BinaryToText(const SBinary& value);

 private:
  CMapiForWDS() = default;
  ~CMapiForWDS();
  CMapiForWDS(const CMapiForWDS&) = delete;
  CMapiForWDS& operator=(const CMapiForWDS&) = delete;
  friend struct MapiForWDSTest;
  struct Closer {
    void operator()(CMapiForWDS* object) const;
  };

  static CriticalSection& LogonLock();
  HRESULT Setup(const std::wstring& item_url);
  HRESULT EnableMAPI();
  HRESULT CreateMapiSession();
  static HRESULT DeleteOldProfiles(IProfAdmin* admin);
  HRESULT AddService();
  HRESULT ConfigurePST(const std::wstring& path);
  HRESULT OpenPST(const std::wstring& path);
  HRESULT CacheStoreEntryID();
  HRESULT ClosePST();
  HRESULT RemoveService();
  HRESULT CloseMAPISession();
  void Teardown();

  HRESULT OpenContainer(const std::wstring& token, bool top, LPMAPIFOLDER* folder);
  HRESULT GetFolderContents(bool sub_folders, LPMAPIFOLDER folder, std::vector<std::wstring>& names,
                            std::vector<FILETIME>& times);
  HRESULT GetFolderPath(LPMAPIFOLDER folder, std::wstring& path);

  Microsoft::WRL::ComPtr<IMAPISession> session_;
  Microsoft::WRL::ComPtr<IMsgServiceAdmin> service_admin_;
  MAPIUID service_uid_ = {};
  ULONG store_entry_id_size_ = 0;
  LPENTRYID store_entry_id_ = nullptr;
  Microsoft::WRL::ComPtr<IMsgStore> store_;
  // Each is 1 while the step it stands for is done; Teardown undoes only those.
  ULONG session_count_ = 0;
  ULONG service_count_ = 0;
  ULONG store_count_ = 0;
  ULONG mapi_init_count_ = 0;
  BOOL unicode_store_ = TRUE;
};
