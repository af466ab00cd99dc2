#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include <zlib.h>

namespace nvo::test {

inline std::string deflated(std::string_view data) {
  uLongf size = compressBound(static_cast<uLong>(data.size()));
  std::string out(size, '\0');
  if (compress2(reinterpret_cast<Bytef*>(out.data()), &size, reinterpret_cast<const Bytef*>(data.data()),
                static_cast<uLong>(data.size()), 9) != Z_OK)
    throw std::runtime_error("cannot deflate");
  out.resize(size);
  return out;
}

/// A PDF as text, object by object.
class PdfFile {
 public:
  PdfFile& object(int number, std::string_view body) {
    text_ += std::to_string(number) + " 0 obj\n" + std::string(body) + "\nendobj\n";
    return *this;
  }
  PdfFile& stream(int number, std::string_view keys, std::string_view data) {
    return object(number, "<<" + std::string(keys) + " /Length " + std::to_string(data.size()) +
                              ">>stream\r\n" + std::string(data) + "\nendstream");
  }
  PdfFile& flate(int number, std::string_view keys, std::string_view data) {
    return stream(number, std::string(keys) + " /Filter /FlateDecode", deflated(data));
  }
  const std::string& text() const { return text_; }

 private:
  std::string text_ = "%PDF-1.4\n";
};

/// A page (object 1) on a box of 10 x 10 points, with these resources and its content in object 2.
inline PdfFile one_page(std::string_view resources, std::string_view content) {
  PdfFile file;
  file.object(1, "<</Type /Page /MediaBox [0 0 10 10] /Contents 2 0 R /Resources <<" +
                     std::string(resources) + ">> >>");
  return file.flate(2, "", content);
}

}  // namespace nvo::test
