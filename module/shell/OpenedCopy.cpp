#include "module/shell/OpenedCopy.h"

#include <shlobj.h>
#include <shlwapi.h>

#include <cstring>
#include <new>

#include "module/core/AppDataFolder.h"
#include "module/core/ComObject.h"
#include "module/core/SCLog.h"
#include "module/core/Text.h"
#include "module/core/UrlGrammar.h"
#include "module/mapi/MapiForWDS.h"
#include "module/protocol/UrlAccessor.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexSP";

// Programs, scripts, and what makes Windows run one or change its settings when it is opened.
constexpr const wchar_t* kExecutable[] = {L".386",
                                          L".rdp",
                                          L".aspx",
                                          L".asx",
                                          L".appcontent-ms",
                                          L".iqy",
                                          L".slk",
                                          L".accde",
                                          L".accda",
                                          L".wll",
                                          L".xlam",
                                          L".ppam",
                                          L".themepack",
                                          L".deskthemepack",
                                          L".sh",
                                          L".desktop",
                                          L".ade",
                                          L".adp",
                                          L".app",
                                          L".application",
                                          L".appinstaller",
                                          L".appref-ms",
                                          L".appx",
                                          L".appxbundle",
                                          L".asp",
                                          L".bas",
                                          L".bat",
                                          L".bgi",
                                          L".cab",
                                          L".cdxml",
                                          L".cer",
                                          L".chm",
                                          L".cmd",
                                          L".cnt",
                                          L".com",
                                          L".cpl",
                                          L".crt",
                                          L".csh",
                                          L".der",
                                          L".diagcab",
                                          L".dll",
                                          L".drv",
                                          L".exe",
                                          L".fxp",
                                          L".gadget",
                                          L".grp",
                                          L".hlp",
                                          L".hpj",
                                          L".hta",
                                          L".htc",
                                          L".img",
                                          L".inf",
                                          L".ins",
                                          L".iso",
                                          L".isp",
                                          L".its",
                                          L".jar",
                                          L".jnlp",
                                          L".js",
                                          L".jse",
                                          L".ksh",
                                          L".library-ms",
                                          L".lnk",
                                          L".mad",
                                          L".maf",
                                          L".mag",
                                          L".mam",
                                          L".maq",
                                          L".mar",
                                          L".mas",
                                          L".mat",
                                          L".mau",
                                          L".mav",
                                          L".maw",
                                          L".mcf",
                                          L".mda",
                                          L".mdb",
                                          L".mde",
                                          L".mdt",
                                          L".mdw",
                                          L".mdz",
                                          L".msc",
                                          L".msh",
                                          L".msh1",
                                          L".msh1xml",
                                          L".msh2",
                                          L".msh2xml",
                                          L".mshxml",
                                          L".msi",
                                          L".msix",
                                          L".msixbundle",
                                          L".msp",
                                          L".mst",
                                          L".msu",
                                          L".ocx",
                                          L".ops",
                                          L".osd",
                                          L".pcd",
                                          L".pif",
                                          L".pl",
                                          L".plg",
                                          L".prf",
                                          L".prg",
                                          L".printerexport",
                                          L".ps1",
                                          L".ps1xml",
                                          L".ps2",
                                          L".ps2xml",
                                          L".psc1",
                                          L".psc2",
                                          L".psd1",
                                          L".psdm1",
                                          L".psm1",
                                          L".pssc",
                                          L".pst",
                                          L".py",
                                          L".pyc",
                                          L".pyo",
                                          L".pyw",
                                          L".pyz",
                                          L".pyzw",
                                          L".reg",
                                          L".scf",
                                          L".scr",
                                          L".sct",
                                          L".search-ms",
                                          L".searchconnector-ms",
                                          L".settingcontent-ms",
                                          L".shb",
                                          L".shs",
                                          L".sys",
                                          L".theme",
                                          L".tmp",
                                          L".udl",
                                          L".url",
                                          L".vb",
                                          L".vbe",
                                          L".vbp",
                                          L".vbs",
                                          L".vhd",
                                          L".vhdx",
                                          L".vsmacros",
                                          L".vsw",
                                          L".vxd",
                                          L".webpnp",
                                          L".website",
                                          L".ws",
                                          L".wsb",
                                          L".wsc",
                                          L".wsf",
                                          L".wsh",
                                          L".xbap",
                                          L".xll",
                                          L".xnk"};

// Windows asks before it runs what lies in a marked file, and shows documents protected. Best effort: a file system
// without streams has no room for the mark.
void MarkAsFromOutside(const std::wstring& path) {
  constexpr char kMark[] = "[ZoneTransfer]\r\nZoneId=3\r\n";
  const HANDLE file = CreateFileW((path + L":Zone.Identifier").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return;
  DWORD written = 0;
  WriteFile(file, kMark, static_cast<DWORD>(strlen(kMark)), &written, nullptr);
  CloseHandle(file);
}

}  // namespace

HRESULT CopyMessageForShell(LPMESSAGE message, std::wstring& path) {
  std::wstring folder = AppDataFolder();
  if (folder.empty()) {
    ZK_LOG(L"CHoardexSP::InvokeCommand() - There is no roaming application-data folder for the message's copy");
    return E_FAIL;
  }
  folder.push_back(L'\\');
  SHCreateDirectory(nullptr, folder.c_str());
  const std::string unique = text::UniqueName();
  const std::wstring name = std::wstring(unique.begin(), unique.end()) + L".msg";
  ZK_LOG(L"CHoardexSP::InvokeCommand() - Unique MSG file name %s", name.c_str());
  path = folder + name;
  const HRESULT hr = CMapiForWDS::SaveToMSG(path, message);
  if (FAILED(hr)) {
    ZK_LOG(L"CHoardexSP::InvokeCommand() - SaveToMSG failed with [0x%08lX]", hr);
    return hr;
  }
  MarkAsFromOutside(path);
  return S_OK;
}

HRESULT CopyAttachment(const std::wstring& attachment_url, std::wstring& path) {
  // The accessor knows every way in which an attachment can be stored.
  const auto accessor = Adopt(new (std::nothrow) CUrlAccessor);
  if (!accessor) return E_OUTOFMEMORY;
  AUTHENTICATION_INFO authentication = {};
  INCREMENTAL_ACCESS_INFO incremental = {};
  ITEM_INFO item = {};
  const HRESULT hr = accessor->Init(attachment_url.c_str(), &authentication, &incremental, &item, nullptr);
  if (FAILED(hr)) return hr;
  // Only CloseAccessor would delete the file: it stays until the folder is swept.
  path = accessor->temporary_file();
  return S_OK;
}

HRESULT CopyAttachmentForShell(const std::wstring& attachment_url, std::wstring& path) {
  const HRESULT hr = CopyAttachment(attachment_url, path);
  if (SUCCEEDED(hr)) MarkAsFromOutside(path);
  return hr;
}

bool IsExecutableType(const std::wstring& path) {
  const std::wstring_view extension = PathFindExtensionW(path.c_str());
  if (extension.starts_with(L".{")) return true;  // the number of a class, which need not be a type of documents
  for (const wchar_t* type : kExecutable)
    if (url::EqualIgnoringCase(extension, type)) return true;
  return false;
}
