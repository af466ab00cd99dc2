#pragma once

#include <string>
#include <vector>

#include "image/pdf/pdf_page.h"

namespace nvo {

/// Where the film will not be what a viewer shows of this page, in sentences for a person without the file's
/// name; none for a page that prints as it looks. The planes have the sizes that the page's geometry gives
/// them.
std::vector<std::string> remarks_on_page(const PdfRenderResult& page);

}  // namespace nvo
