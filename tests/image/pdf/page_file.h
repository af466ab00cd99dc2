#pragma once

#include <string>

#include "pdf_file.h"

namespace nvo::test {

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
  return pdf.text() + "trailer << /Root 1 0 R " + file.trailer + " >>\n%%EOF\n";
}

/// A filled rectangle that touches two corners of its crop box when the page is turned clockwise.
inline const PageFile kTurnedPage{.boxes = "/MediaBox [0 0 144 144] /CropBox [36 18 108 54] /Rotate 90",
                                  .content = "1 0 0 rg 36 18 18 18 re f 0 0 1 rg 0 60 144 40 re f"};

/// Opens with a password that nobody knows.
inline const PageFile kLockedPage{.trailer =
                                      "/ID [<00><00>] /Encrypt << /Filter /Standard /V 1 /R 2 /P -4 /O <" +
                                      std::string(64, '1') + "> /U <" + std::string(64, '2') + "> >>"};

}  // namespace nvo::test
