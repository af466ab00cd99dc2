// Any bytes as the content of a page that has white colorants, images and a soft mask.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "image/pdf/pdf_objects.h"
#include "image/pdf/pdf_tokens.h"
#include "image/pdf/spot_color_space.h"
#include "image/pdf/spot_content.h"
#include "image/pdf/spot_image_painter.h"
#include "image/pdf/spot_vector_painter.h"

namespace {

constexpr std::string_view kObjects =
    "1 0 obj <</ColorSpace <</W [/Separation /White 0] /N [/DeviceN [/Cyan /White] 0] /L 5 0 R>> "
    "/XObject <</I 2 0 R /J 3 0 R>> >> endobj "
    "2 0 obj <</Subtype /Image /Width 3 /Height 2 /BitsPerComponent 8 /ColorSpace /W /SMask 4 0 R /Length 6>>"
    "stream\nabcdef endobj "
    "3 0 obj <</Subtype /Image /Width 2 /Height 2 /BitsPerComponent 8 /ColorSpace [/Indexed /W 2 5 0 R] "
    "/Length 4>>"
    "stream\n\1\2\3\1 endobj "
    "4 0 obj <</Width 1 /Height 2 /BitsPerComponent 8 /Predictor 2 /Length 2>>stream\nzz endobj "
    "5 0 obj (xyz) endobj";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const nvo::PdfObjectTable table = nvo::build_object_table(kObjects);
  const nvo::PdfTokens resources = nvo::tokenize_pdf(table.at(1).text);
  nvo::SpotColorSpaces spaces(resources, table);
  const nvo::SpotColorantMap colorants = spaces.colorants();
  const nvo::SpotImageMap images = nvo::find_spot_images(resources, table);
  if (colorants.size() != 2 || images.size() != 2) std::abort();

  // Two streams: the state runs on from one to the other.
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const nvo::PdfTokens first = nvo::tokenize_pdf(bytes.substr(0, size / 2));
  const nvo::PdfTokens second = nvo::tokenize_pdf(bytes.substr(size / 2));
  const nvo::PageRaster page{{0.0, 0.0, 20.0, 10.0}, 40, 30};
  nvo::SpotVectorPainter vectors(colorants, page);
  nvo::SpotImagePainter pictures(images, table, spaces, page);
  for (const nvo::PdfTokens& content : {first, second}) {
    vectors.run(content);
    pictures.run(content);
  }
  pictures.finish();
  return 0;
}
