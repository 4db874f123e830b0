#ifndef SAGLEME_SQL_IMAGE_H
#define SAGLEME_SQL_IMAGE_H

// The bytes of a SQLite database that lists the tables of a schema.

#include <cstdint>
#include <string>
#include <vector>

#include "schema.h"

namespace sagleme::sql {

class Image {
 public:
  Image() = default;
  // `encoding` is SQLite's name of a text encoding, which all databases of a connection share.
  Image(Schema const& schema, std::string const& encoding);

  std::size_t size() const { return bytes_.size(); }
  // Fills up with zeros behind the end; false when anything was.
  bool Read(void* out, std::size_t size, std::size_t offset) const;
  void Write(void const* data, std::size_t size, std::size_t offset);
  void Truncate(std::size_t size) { bytes_.resize(size); }

 private:
  void Stamp();

  std::vector<unsigned char> bytes_;
};

}  // namespace sagleme::sql

#endif
