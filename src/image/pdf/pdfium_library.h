#pragma once

#include <cstddef>
#include <filesystem>
#include <mutex>
#include <string>

#include "core/platform/dynamic_library.h"

namespace nvo {

/// The functions of PDFium's public C interface that this program calls. Handles are opaque pointers.
struct PdfiumEntries {
  void (*init_library)() = nullptr;
  void (*destroy_library)() = nullptr;
  void* (*load_document)(const void* bytes, std::size_t size, const char* password) = nullptr;
  void (*close_document)(void* document) = nullptr;
  int (*page_count)(void* document) = nullptr;
  void* (*load_page)(void* document, int index) = nullptr;
  void (*close_page)(void* page) = nullptr;
  double (*page_width)(void* page) = nullptr;  // points, after rotation
  double (*page_height)(void* page) = nullptr;
  void* (*create_bitmap)(int width, int height, int format, void* pixels, int stride) = nullptr;
  void (*destroy_bitmap)(void* bitmap) = nullptr;
  void (*fill_rect)(void* bitmap, int left, int top, int width, int height, unsigned long argb) = nullptr;
  void (*render_page)(void* bitmap, void* page, int x, int y, int width, int height, int rotate,
                      int flags) = nullptr;
  unsigned long (*last_error)() = nullptr;
};

/// PDFium, bound at run time from a library file in one folder and nowhere else. That it is not there is no
/// error: `available` says so, and `unavailable_reason` why.
class PdfiumLibrary {
 public:
  /// An empty `folder` stands for a place that could not be found out.
  explicit PdfiumLibrary(const std::filesystem::path& folder);
  ~PdfiumLibrary();
  PdfiumLibrary(const PdfiumLibrary&) = delete;
  PdfiumLibrary& operator=(const PdfiumLibrary&) = delete;

  /// The process's own, from the folder of the executable; loaded on the first call.
  static PdfiumLibrary& instance();

  bool available() const { return available_; }
  const std::string& unavailable_reason() const { return unavailable_reason_; }

  /// Call only what is `available`, and only under `calls`: the library is not made for several threads.
  const PdfiumEntries& entries() const { return entries_; }
  std::mutex& calls() { return calls_; }

 private:
  platform::DynamicLibrary module_;
  PdfiumEntries entries_;
  bool available_ = false;
  std::string unavailable_reason_;
  std::mutex calls_;
};

}  // namespace nvo
