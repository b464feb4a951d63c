// The rules and the makers of values that the rows of the item sequences name.
#pragma once

#include "module/filter/ItemSequence.h"

struct ItemSteps {
  using Outcome = ItemSequence::Outcome;

  static const ItemSequence kOfRoot, kOfContainer, kOfMessage, kOfAttachment;
  static const ItemSequence::Row kMessageRows[70], kAttachmentRows[14], kRootRows[3], kContainerRows[3];

  // Of a message's properties (MessageValues.cpp)
  static HRESULT Text(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT NarrowText(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT Time(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT Truth(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT Short(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT Long(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT Read(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT Hexadecimal(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT Address(CHoardexFilter& filter, const SPropValue* element, PROPVARIANT& value);
  // Of the filter's own state
  template <bool on>
  static HRESULT Always(CHoardexFilter&, const SPropValue*, PROPVARIANT& value) {
    return variant::SetBool(value, on);
  }
  template <std::wstring CHoardexFilter::*member>
  static HRESULT Member(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
    return variant::SetString(value, filter.*member);
  }
  static HRESULT Subject(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT KindText(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT TypeName(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT TypeText(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT Flagged(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT HasNames(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT NextLink(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT Link(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) { return filter.MakeLink(value); }
  // Of an attachment (AttachmentSteps.cpp)
  static HRESULT AttachedKind(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT AttachedType(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT AttachedName(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT AttachedAuthor(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT AttachedDate(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  // Of a container (ContainerSteps.cpp)
  static HRESULT Separator(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT LastOfPath(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT ParentOfPath(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);

  static const ItemSequence::Rule kIsAttachment, kBody, kFlag, kNames, kHasAttachment, kLinks;
  static const ItemSequence::Rule kVaultFiles, kChildren;
  // Before each chunk of an item, behind its last, and where GetValue finds no row
  static Outcome EnterRoot(CHoardexFilter& filter);
  static Outcome EnterContainer(CHoardexFilter& filter);
  static Outcome EnterMessage(CHoardexFilter& filter);
  static Outcome EnterAttachment(CHoardexFilter& filter);
  static HRESULT End(CHoardexFilter& filter, STAT_CHUNK*) { return filter.End(); }
  static HRESULT LeaveMessage(CHoardexFilter& filter, STAT_CHUNK*);
  static HRESULT LeaveAttachment(CHoardexFilter& filter, STAT_CHUNK* stat);
  static HRESULT Undefined(CHoardexFilter& filter, PROPVARIANT** value);
  static HRESULT Forward(CHoardexFilter& filter, PROPVARIANT** value);
  static void TakeFolderOutOfPath(CHoardexFilter& filter);
};
