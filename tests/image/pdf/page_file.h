#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace nvo::test {

/// A PDF whose pages all look alike.
struct PageFile {
  std::string boxes = "/MediaBox [0 0 72 36]";
  std::string content = {};
  std::string resources = {};
  std::string trailer = {};
  int pages = 1;
};

/// The file's bytes, with a cross-reference table.
inline std::string pdf_bytes(const PageFile& file) {
  std::string kids;
  for (int i = 0; i < file.pages; ++i) kids += std::to_string(4 + i) + " 0 R ";
  std::vector<std::string> objects = {
      "<< /Type /Catalog /Pages 2 0 R >>",
      "<< /Type /Pages /Kids [" + kids + "] /Count " + std::to_string(file.pages) + " >>",
      "<< /Length " + std::to_string(file.content.size()) + " >>\nstream\n" + file.content + "\nendstream"};
  for (int i = 0; i < file.pages; ++i)
    objects.push_back("<< /Type /Page /Parent 2 0 R " + file.boxes + " /Contents 3 0 R /Resources << " +
                      file.resources + " >> >>");

  std::string bytes = "%PDF-1.4\n";
  std::string table = "xref\n0 " + std::to_string(objects.size() + 1) + "\n0000000000 65535 f \n";
  for (std::size_t i = 0; i < objects.size(); ++i) {
    char entry[32];
    std::snprintf(entry, sizeof entry, "%010zu 00000 n \n", bytes.size());
    table += entry;
    bytes += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
  }
  return bytes + table + "trailer << /Size " + std::to_string(objects.size() + 1) + " /Root 1 0 R " +
         file.trailer + " >>\nstartxref\n" + std::to_string(bytes.size()) + "\n%%EOF\n";
}

/// A filled rectangle that touches two corners of its crop box when the page is turned clockwise.
inline const PageFile kTurnedPage{.boxes = "/MediaBox [0 0 144 144] /CropBox [36 18 108 54] /Rotate 90",
                                  .content = "1 0 0 rg 36 18 18 18 re f 0 0 1 rg 0 60 144 40 re f"};

/// Opens with a password that nobody knows.
inline const PageFile kLockedPage{.trailer =
                                      "/ID [<00><00>] /Encrypt << /Filter /Standard /V 1 /R 2 /P -4 /O <" +
                                      std::string(64, '1') + "> /U <" + std::string(64, '2') + "> >>"};

}  // namespace nvo::test
