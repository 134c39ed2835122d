# Writes the page's files into a C++ source. Called with OUTPUT and FILES (paths, separated by commas).
set(types_html "text/html; charset=utf-8")
set(types_css "text/css; charset=utf-8")
set(types_js "text/javascript; charset=utf-8")
set(types_svg "image/svg+xml")
set(types_mmd "text/plain; charset=utf-8")

string(REPLACE "," ";" files "${FILES}")
set(entries "")
foreach(file IN LISTS files)
  file(READ "${file}" content)
  cmake_path(GET file FILENAME name)
  string(REGEX MATCH "[a-z]+$" ending "${name}")
  set(path "/${name}")
  if(name STREQUAL "index.html")
    set(path "/")
  endif()
  string(APPEND entries "    {\"${path}\", \"${types_${ending}}\",\n     R\"~page~(${content})~page~\"},\n")
endforeach()
file(WRITE "${OUTPUT}" "#include \"tools/virtual-station/benchserver.h\"

namespace {
constexpr PageFile cFiles[] = {
${entries}};
}  // namespace

std::span<const PageFile> PageFiles() {
  return cFiles;
}
")
