// CAsn1object: the abstract base of every DER class of the timestamp library.
//
// A DER object owns its value (and the encoded bytes of its members); it is
// a value type: copyable, not thread-safe. The three operations:
//   getDER   writes the complete encoding at buffer[*pos] and advances *pos.
//            The caller sizes the buffer from getSize() (see encodeDER()).
//   setDER   reads one complete encoding from buffer[*pos], never reading at
//            or past buffer[end], replaces the value and advances *pos.
//   getSize  the number of octets getDER will write. Not const: some classes
//            compute and keep their content length on the way.
// getDER and setDER return 0 on success and -1 on failure; decoding errors
// are logged at level 2. After a failed setDER the value is undefined.
#ifndef DER_CASN1OBJECT_H_
#define DER_CASN1OBJECT_H_

class CAsn1object {
 public:
  CAsn1object() = default;
  CAsn1object(const CAsn1object&) = default;
  CAsn1object& operator=(const CAsn1object&) = default;
  virtual ~CAsn1object() = default;

  virtual int getDER(unsigned char* buffer, unsigned int* pos) = 0;
  virtual int setDER(const unsigned char* buffer, unsigned int* pos, unsigned int end) = 0;
  virtual unsigned int getSize() = 0;
};

#endif  // DER_CASN1OBJECT_H_
