// CAsn1contentInfo: a CMS ContentInfo, the outer shape of a timestamp token
// and of the SignedData's encapsulated content.
// ASN.1: ContentInfo ::= SEQUENCE { contentType OBJECT IDENTIFIER,
//   content [0] EXPLICIT ANY DEFINED BY contentType }
//
// The content object is chosen by the content type and owned: CAsn1data for
// data (NID 21), CAsn1signedData for signedData (NID 22), CAsn1TSTInfo for the
// TSTInfo type (tstInfoNid()). Any other type is refused. A value type:
// copies are deep.
#ifndef DER_CASN1CONTENTINFO_H_
#define DER_CASN1CONTENTINFO_H_

#include <memory>

#include "der/CAsn1object.h"
#include "der/CAsn1oid.h"

class CAsn1TSTInfo;
class CAsn1data;
class CAsn1signedData;

class CAsn1contentInfo : public CAsn1object {
 public:
  CAsn1contentInfo();
  CAsn1contentInfo(const CAsn1contentInfo& other);
  CAsn1contentInfo& operator=(const CAsn1contentInfo& other);
  ~CAsn1contentInfo() override;

  // 30, length, contentType, then the content when there is one.
  int getDER(DerWriter& out) const override;
  // "Invalid contentType: %d" for a type other than data, signedData and
  // TSTInfo. Data without a [0] decodes to no content.
  int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) override;

  // Sets the content type and takes the content (which may be null).
  void setContent(int nid, std::unique_ptr<CAsn1object> content);
  int contentNid() const { return contentType.nid; }
  // The content, or null when there is none or it is of another class.
  CAsn1object* content() const { return content_.get(); }
  CAsn1signedData* signedData() const;
  CAsn1TSTInfo* tstInfo() const;
  CAsn1data* data() const;

  CAsn1oid contentType;

 private:
  std::unique_ptr<CAsn1object> content_;
};

#endif  // DER_CASN1CONTENTINFO_H_
