// A shell automation object in place of the system's: hands out the folder, the item and the author that a test says.
#pragma once

#include <windows.h>

#include <shldisp.h>

#include <string>

class FakeShell {
 public:
  enum Stage { kCreate, kNameSpace, kParseName, kFolderItem2, kProperty, kNone };

  FakeShell() {
    for (Object& object : objects_) {
      object.table = object.slots;
      object.shell = this;
      for (void*& slot : object.slots) slot = reinterpret_cast<void*>(&NotImplemented);
      object.slots[0] = reinterpret_cast<void*>(&QueryInterface);
      object.slots[1] = object.slots[2] = reinterpret_cast<void*>(&Count);
    }
    objects_[kFactory].slots[3] = reinterpret_cast<void*>(&CreateInstance);
    objects_[kDispatch].slots[9] = reinterpret_cast<void*>(&NameSpace);
    objects_[kFolder].slots[12] = reinterpret_cast<void*>(&ParseName);
    objects_[kItem].slots[25] = reinterpret_cast<void*>(&ExtendedProperty);
    constexpr CLSID kShell = {0x13709620, 0xC279, 0x11CE, {0xA4, 0x9E, 0x44, 0x45, 0x53, 0x54, 0x00, 0x00}};
    CoRegisterClassObject(kShell, reinterpret_cast<IUnknown*>(&objects_[kFactory]), CLSCTX_INPROC_SERVER,
                          REGCLS_MULTIPLEUSE, &cookie_);
  }
  ~FakeShell() { CoRevokeClassObject(cookie_); }
  FakeShell(const FakeShell&) = delete;
  FakeShell& operator=(const FakeShell&) = delete;

  Stage fails = kNone;                  // this step answers `result`, and hands nothing out
  HRESULT result = S_OK;                // a success here hands nothing out, either
  VARIANT author = {};                  // copied for each caller
  std::wstring folder, name, property;  // as it was asked

 private:
  enum { kFactory, kDispatch, kFolder, kItem, kObjects };
  // An object by its table alone: of the seventy methods four are used. None is counted; they live as long as this.
  struct Object {
    void** table;
    FakeShell* shell;
    void* slots[40];
  };

  static HRESULT STDMETHODCALLTYPE NotImplemented(Object*) { return E_NOTIMPL; }
  static ULONG STDMETHODCALLTYPE Count(Object*) { return 1; }
  static HRESULT STDMETHODCALLTYPE QueryInterface(Object* self, REFIID iid, void** object) {
    constexpr IID kFolderItem2Id = {0xEDC817AA, 0x92B8, 0x11D1, {0xB0, 0x75, 0x00, 0xC0, 0x4F, 0xC3, 0x3A, 0xA5}};
    const bool refused = iid == IID_IMarshal || (iid == kFolderItem2Id && self->shell->fails == Stage::kFolderItem2);
    *object = refused ? nullptr : self;
    return refused ? E_NOINTERFACE : S_OK;
  }
  // What a step answers: the next object, unless it is the one that fails.
  HRESULT Give(Stage stage, int next, void** object) {
    *object = fails == stage ? nullptr : static_cast<void*>(&objects_[next]);
    return fails == stage ? result : S_OK;
  }
  static HRESULT STDMETHODCALLTYPE CreateInstance(Object* self, IUnknown*, REFIID, void** object) {
    return self->shell->Give(kCreate, kDispatch, object);
  }
  static HRESULT STDMETHODCALLTYPE NameSpace(Object* self, VARIANT folder, void** object) {
    self->shell->folder = folder.vt == VT_BSTR ? folder.bstrVal : L"";
    return self->shell->Give(kNameSpace, kFolder, object);
  }
  static HRESULT STDMETHODCALLTYPE ParseName(Object* self, BSTR name, void** object) {
    self->shell->name = name;
    return self->shell->Give(kParseName, kItem, object);
  }
  static HRESULT STDMETHODCALLTYPE ExtendedProperty(Object* self, BSTR property, VARIANT* value) {
    self->shell->property = property;
    VariantInit(value);
    return self->shell->fails == kProperty ? self->shell->result : VariantCopy(value, &self->shell->author);
  }

  Object objects_[kObjects] = {};
  DWORD cookie_ = 0;
};
