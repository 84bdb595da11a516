// CAsn1object: the abstract base of every DER class of the timestamp library.
//
// A DER object owns its value (and the encoded bytes of its members); it is
// a value type: copyable, not thread-safe. The three operations:
//   getDER   appends the complete encoding to out.
//   setDER   reads one complete encoding from buffer[*pos], never reading at
//            or past buffer[end], replaces the value and advances *pos.
//   getSize  the number of octets getDER writes. By default the object is
//            encoded and measured; primitives compute it directly.
// getDER and setDER return 0 on success and -1 on failure; decoding errors
// are logged at level 2. After a failed setDER the value is undefined; after
// a failed getDER, what out holds is of no use.
#ifndef DER_CASN1OBJECT_H_
#define DER_CASN1OBJECT_H_

class DerWriter;

class CAsn1object {
 public:
  CAsn1object() = default;
  CAsn1object(const CAsn1object&) = default;
  CAsn1object& operator=(const CAsn1object&) = default;
  virtual ~CAsn1object() = default;

  virtual int getDER(DerWriter& out) const = 0;
  virtual int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) = 0;
  // 0 when the object cannot be encoded.
  virtual unsigned int getSize() const;
};

#endif  // DER_CASN1OBJECT_H_
