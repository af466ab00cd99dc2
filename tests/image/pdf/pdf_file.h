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

/// A PDF whose pages all look alike.
struct PageFile {
  std::string boxes = "/MediaBox [0 0 72 36]";
  std::string content = {};
  std::string resources = {};
  std::string trailer = {};
  int pages = 1;
};

/// The file's bytes, without a cross-reference table: both renderers make their own.
inline std::string pdf_bytes(const PageFile& file) {
  std::string kids;
  PdfFile pdf;
  for (int i = 4; i < 4 + file.pages; ++i) {
    kids += std::to_string(i) + " 0 R ";
    pdf.object(i, "<< /Type /Page /Parent 2 0 R " + file.boxes + " /Contents 3 0 R /Resources << " +
                      file.resources + " >> >>");
  }
  pdf.object(1, "<< /Type /Catalog /Pages 2 0 R >>").stream(3, "", file.content);
  pdf.object(2, "<< /Type /Pages /Kids [" + kids + "] /Count " + std::to_string(file.pages) + " >>");
  return pdf.text() + "trailer << /Root 1 0 R /Size " + std::to_string(file.pages + 4) + " " + file.trailer +
         " >>\n%%EOF\n";
}

/// A filled rectangle that touches two corners of its crop box when the page is turned clockwise.
inline const PageFile kTurnedPage{.boxes = "/MediaBox [0 0 144 144] /CropBox [36 18 108 54] /Rotate 90",
                                  .content = "1 0 0 rg 36 18 18 18 re f 0 0 1 rg 0 60 144 40 re f"};

/// Opens with a password that nobody knows.
inline const PageFile kLockedPage{.trailer =
                                      "/ID [<00><00>] /Encrypt << /Filter /Standard /V 1 /R 2 /P -4 /O <" +
                                      std::string(64, '1') + "> /U <" + std::string(64, '2') + "> >>"};

}  // namespace nvo::test
