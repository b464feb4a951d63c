#include "provider/mime/converter.h"

#include <atomic>

namespace provider::mime {
namespace {

constexpr ULONG kKnownFlags = CCSF_SMTP | CCSF_INCLUDE_BCC | CCSF_PLAIN_TEXT_ONLY | CCSF_NO_MSGID;

class Converter final : public Object<IConverterSession> {
 public:
  Converter() : Object(Kind::kSession) {}

  // Addresses come from the message; the book is held, as callers expect, and not asked.
  STDMETHODIMP SetAdrBook(LPADRBOOK book) override {
    return Guarded("IConverterSession::SetAdrBook", [&] {
      if (book) book->AddRef();
      book_ = Ref<IAddrBook>(book);
    });
  }
  STDMETHODIMP SetEncoding(ENCODINGTYPE encoding) override {
    return Guarded("IConverterSession::SetEncoding", [&] {
      Require(encoding >= IET_BASE64 && encoding <= IET_8BIT, E_INVALIDARG);
      options_.encoding = encoding;
    });
  }
  STDMETHODIMP MIMEToMAPI(LPSTREAM, LPMESSAGE, LPCSTR, ULONG) override {
    return Answer("IConverterSession::MIMEToMAPI", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP MAPIToMIMEStm(LPMESSAGE message, LPSTREAM stream, ULONG flags) override {
    return Guarded("IConverterSession::MAPIToMIMEStm", [&] {
      Require(message && stream, E_INVALIDARG);
      Require((flags & CCSF_SMTP) && !(flags & ~kKnownFlags), E_INVALIDARG);
      Options options = options_;
      options.flags = flags;
      Write(message, stream, options);
    });
  }
  // Encoded text has no long lines.
  STDMETHODIMP SetTextWrapping(BOOL, ULONG) override { return Answer("IConverterSession::SetTextWrapping", S_OK); }
  STDMETHODIMP SetSaveFormat(MIMESAVETYPE format) override {
    return Answer("IConverterSession::SetSaveFormat", format == SAVE_RFC1521 ? S_OK : E_INVALIDARG);
  }
  // All text is UTF-8.
  STDMETHODIMP SetCharset(BOOL, HANDLE, CSETAPPLYTYPE) override {
    return Answer("IConverterSession::SetCharset", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP Reserved5() override { return E_NOTIMPL; }
  STDMETHODIMP Reserved8() override { return E_NOTIMPL; }
  STDMETHODIMP Reserved9() override { return E_NOTIMPL; }
  STDMETHODIMP Reserved10() override { return E_NOTIMPL; }
  STDMETHODIMP Reserved13() override { return E_NOTIMPL; }

 protected:
  bool Implements(REFIID iid) const override { return iid == __uuidof(IConverterSession); }

 private:
  Ref<IAddrBook> book_;
  Options options_;
};

}  // namespace

Ref<IConverterSession> MakeConverter() {
  return Ref<IConverterSession>(new Converter);
}

}  // namespace provider::mime
