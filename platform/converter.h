// The MIME converter of the mail client (declared in the MAPI documentation; mingw-w64 has no header of it). Method
// order is binary contract; the slots named Reserved belong to methods that nobody documents.
#pragma once

#include "platform/mapi_extra.h"

enum ENCODINGTYPE { IET_BINARY = 0, IET_BASE64 = 1, IET_UUENCODE = 2, IET_QP = 3, IET_7BIT = 4, IET_8BIT = 5 };
enum MIMESAVETYPE { SAVE_RFC822 = 0, SAVE_RFC1521 = 1 };
enum CSETAPPLYTYPE { CSET_APPLY_UNTAGGED = 0, CSET_APPLY_ALL = 1, CSET_APPLY_TAG_ALL = 2 };
inline constexpr ULONG CCSF_SMTP = 0x2, CCSF_NOHEADERS = 0x4, CCSF_INCLUDE_BCC = 0x20, CCSF_PLAIN_TEXT_ONLY = 0x1000,
                       CCSF_NO_MSGID = 0x4000;

struct IConverterSession : IUnknown {
  // Null releases the address book that was set before.
  virtual HRESULT STDMETHODCALLTYPE SetAdrBook(LPADRBOOK book) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetEncoding(ENCODINGTYPE encoding) = 0;
  virtual HRESULT STDMETHODCALLTYPE Reserved5() = 0;
  virtual HRESULT STDMETHODCALLTYPE MIMEToMAPI(LPSTREAM stream, LPMESSAGE message, LPCSTR source_server,
                                               ULONG flags) = 0;
  virtual HRESULT STDMETHODCALLTYPE MAPIToMIMEStm(LPMESSAGE message, LPSTREAM stream, ULONG flags) = 0;
  virtual HRESULT STDMETHODCALLTYPE Reserved8() = 0;
  virtual HRESULT STDMETHODCALLTYPE Reserved9() = 0;
  virtual HRESULT STDMETHODCALLTYPE Reserved10() = 0;
  virtual HRESULT STDMETHODCALLTYPE SetTextWrapping(BOOL wrap, ULONG width) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetSaveFormat(MIMESAVETYPE format) = 0;
  virtual HRESULT STDMETHODCALLTYPE Reserved13() = 0;
  virtual HRESULT STDMETHODCALLTYPE SetCharset(BOOL apply, HANDLE charset, CSETAPPLYTYPE type) = 0;
};

inline constexpr CLSID CLSID_IConverterSession = {
    0x4E3A7680, 0xB77A, 0x11D0, {0x9D, 0xA5, 0x00, 0xC0, 0x4F, 0xD6, 0x56, 0x85}};
__CRT_UUID_DECL(IConverterSession, 0x4B401570, 0xB77B, 0x11D0, 0x9D, 0xA5, 0x00, 0xC0, 0x4F, 0xD6, 0x56, 0x85)
