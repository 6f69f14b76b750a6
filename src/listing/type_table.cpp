#include "listing/type_table.h"

#include <algorithm>
#include <array>
#include <bit>
#include <map>

namespace dirwell {
namespace {

constexpr std::array<TypeRow, 115> TypeTable{{
    {class_music, "ogg", "audio/ogg"},
    {class_music, "aac", "audio/x-aac"},
    {class_music, "aif", "audio/x-aiff"},
    {class_music, "aiff", "audio/x-aiff"},
    {class_music, "dff", "audio/x-dff"},
    {class_music, "dsf", "audio/x-dsf"},
    {class_music, "flac", "audio/x-flac"},
    {class_music, "m4a", "audio/x-m4a"},
    {class_music, "m4b", "audio/x-m4b"},
    {class_music, "m4r", "audio/x-m4r"},
    {class_music, "mka", "audio/x-matroska"},
    {class_music, "ape", "audio/x-monkeys-audio"},
    {class_music, "wma", "audio/x-ms-wma"},
    {class_music, "ra", "audio/x-pn-realaudio"},
    {class_music, "wav", "audio/x-wav"},
    {class_music, "wv", "audio/x-wavpack"},
    {class_music, "mp3", "audio/mpeg"},
    {class_music, "mpa", "audio/mpeg"},
    {class_music, "au", "audio/basic"},
    {class_video, "3gp", "video/3gp"},
    {class_video, "bdmv", "video/bluray"},
    {class_video, "divx", "video/divx"},
    {class_video, "ifo", "video/dvd"},
    {class_video, "iso", "video/iso"},
    {class_video, "insv", "video/mp4"},
    {class_video, "m4v", "video/mp4"},
    {class_video, "mp4", "video/mp4"},
    {class_video, "rmp4", "video/mp4"},
    {class_video, "m1v", "video/mpeg"},
    {class_video, "m2t", "video/mpeg"},
    {class_video, "m2ts", "video/mpeg"},
    {class_video, "m2v", "video/mpeg"},
    {class_video, "mod", "video/mpeg"},
    {class_video, "mpeg", "video/mpeg"},
    {class_video, "mpg", "video/mpeg"},
    {class_video, "mts", "video/mpeg"},
    {class_video, "tod", "video/mpeg"},
    {class_video, "tp", "video/mpeg"},
    {class_video, "trp", "video/mpeg"},
    {class_video, "ts", "video/mpeg"},
    {class_video, "mov", "video/quicktime"},
    {class_video, "rm", "video/vnd.rn-realvideo"},
    {class_video, "rmvb", "video/vnd.rn-realvideo"},
    {class_video, "webm", "video/webm"},
    {class_video, "f4v", "video/x-f4v"},
    {class_video, "flv", "video/x-flv"},
    {class_video, "mkv", "video/x-matroska"},
    {class_video, "mp2v", "video/x-mpeg2"},
    {class_video, "mpv2", "video/x-mpeg2"},
    {class_video, "asf", "video/x-ms-asf"},
    {class_video, "wmv", "video/x-ms-wmv"},
    {class_video, "avi", "video/x-msvideo"},
    {class_photo, "3fr", "image/3fr"},
    {class_photo, "bmp", "image/bmp"},
    {class_photo, "dcr", "image/dcr"},
    {class_photo, "dng", "image/dng"},
    {class_photo, "erf", "image/erf"},
    {class_photo, "gif", "image/gif"},
    {class_photo, "heic", "image/heic"},
    {class_photo, "heif", "image/heif"},
    {class_photo, "jpeg", "image/jpeg"},
    {class_photo, "iiq", "image/jpeg"},
    {class_photo, "insp", "image/jpeg"},
    {class_photo, "jpe", "image/jpeg"},
    {class_photo, "jpg", "image/jpeg"},
    {class_photo, "k25", "image/k25"},
    {class_photo, "kdc", "image/kdc"},
    {class_photo, "mef", "image/mef"},
    {class_photo, "mos", "image/mos"},
    {class_photo, "mrw", "image/mrw"},
    {class_photo, "nef", "image/nef"},
    {class_photo, "orf", "image/orf"},
    {class_photo, "pef", "image/pef"},
    {class_photo, "png", "image/png"},
    {class_photo, "ptx", "image/ptx"},
    {class_photo, "raf", "image/raf"},
    {class_photo, "raw", "image/raw"},
    {class_photo, "rw2", "image/rw2"},
    {class_photo, "arw", "image/sony"},
    {class_photo, "sr2", "image/sony"},
    {class_photo, "srf", "image/srf"},
    {class_photo, "tiff", "image/tiff"},
    {class_photo, "tif", "image/tiff"},
    {class_photo, "webp", "image/webp"},
    {class_photo, "cr2", "image/x-canon-cr2"},
    {class_photo, "crw", "image/x-canon-crw"},
    {class_photo, "tga", "image/x-tga"},
    {class_photo, "x3f", "image/x3f"},
    {class_photo, "hif", "image/heif"},
    {class_pdf, "pdf", "application/pdf"},
    {class_word, "doc", "application/msword"},
    {class_word, "docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
    {class_word, "docm", "application/vnd.ms-word.document.macroEnabled.12"},
    {class_word, "dotx", "application/vnd.openxmlformats-officedocument.wordprocessingml.template"},
    {class_word, "dotm", "application/vnd.ms-word.template.macroEnabled.12"},
    {class_word, "dot", "application/msword"},
    {class_sheet, "xls", "application/vnd.ms-excel"},
    {class_sheet, "xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
    {class_sheet, "xlsm", "application/vnd.ms-excel.sheet.macroEnabled.12"},
    {class_sheet, "xlt", "application/vnd.ms-excel"},
    {class_sheet, "xltx", "application/vnd.openxmlformats-officedocument.spreadsheetml.template"},
    {class_sheet, "xltm", "application/vnd.ms-excel.template.macroEnabled.12"},
    {class_sheet, "xlam", "application/vnd.ms-excel.addin.macroEnabled.12"},
    {class_slides, "ppt", "application/vnd.ms-powerpoint"},
    {class_slides, "pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
    {class_slides, "pptm", "application/vnd.ms-powerpoint.presentation.macroEnabled.12"},
    {class_slides, "potx", "application/vnd.openxmlformats-officedocument.presentationml.template"},
    {class_slides, "potm", "application/vnd.ms-powerpoint.template.macroEnabled.12"},
    {class_slides, "ppam", "application/vnd.ms-powerpoint.addin.macroenabled.12"},
    {class_slides, "ppsx", "application/vnd.openxmlformats-officedocument.presentationml.slideshow"},
    {class_slides, "ppsm", "application/vnd.ms-powerpoint.slideshow.macroEnabled.12"},
    {class_slides, "pot", "application/mspowerpoint"},
    {class_slides, "pps", "application/vnd.ms-powerpoint"},
    {class_slides, "rtf", "application/rtf"},
    {class_mail, "eml", "message/rfc822"},
}};

constexpr auto isLowerCase = [](const TypeRow &row) {
  return std::ranges::none_of(row.extension, [](char c) { return c >= 'A' && c <= 'Z'; });
};
constexpr auto hasOneClass = [](const TypeRow &row) {
  return std::has_single_bit(row.mediaClass) && (row.mediaClass & (media_classes | document_classes)) != 0;
};
constexpr auto isUnique = [](const TypeRow &row) {
  return std::ranges::count(TypeTable, row.extension, &TypeRow::extension) == 1;
};
static_assert(std::ranges::all_of(TypeTable, isLowerCase), "lookups fold the extension asked for, not the row's");
static_assert(std::ranges::all_of(TypeTable, hasOneClass));
static_assert(std::ranges::all_of(TypeTable, isUnique), "a second row of an extension would hide the first");

constexpr std::size_t longest_extension =
    std::ranges::max(TypeTable, {}, [](const TypeRow &row) { return row.extension.size(); }).extension.size();

// Process-wide: filled once by the worker before requests are served, read-only from then on.
std::map<std::string_view, const TypeRow *> typeIndex;

constexpr char foldAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

void buildTypeIndex() {
  if (!typeIndex.empty()) {
    return;
  }
  for (const TypeRow &row : TypeTable) {
    typeIndex[row.extension] = &row;
  }
}

const TypeRow *findType(std::string_view extension) {
  if (extension.size() > longest_extension) {
    return nullptr;
  }
  std::array<char, longest_extension> folded{};
  std::ranges::transform(extension, folded.begin(), foldAscii);
  const auto found = typeIndex.find(std::string_view(folded.data(), extension.size()));
  return found != typeIndex.end() ? found->second : nullptr;
}

bool mediaClassEquals(std::string_view extension, std::uint32_t value) {
  const TypeRow *row = findType(extension);
  return row != nullptr && row->mediaClass == value;
}

bool mediaClassIn(std::string_view extension, std::uint32_t mask) {
  const TypeRow *row = findType(extension);
  return row != nullptr && (row->mediaClass & mask) != 0;
}

bool isMediaExtension(std::string_view extension) {
  return mediaClassIn(extension, media_classes);
}

bool isDocumentExtension(std::string_view extension) {
  return mediaClassIn(extension, document_classes);
}

}  // namespace dirwell
