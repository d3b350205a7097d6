# Makes the source file OUTPUT of the files of FOLDER whose names FILES has, with bars between them:
# each is asked for by its name, index.html by nothing. Others' files have to be as uPlot.txt says
# that they were published. Run with cmake -P.
set(type_html "text/html; charset=utf-8")
set(type_css "text/css; charset=utf-8")
set(type_js "text/javascript; charset=utf-8")
set(type_svg "image/svg+xml")
set(type_LICENSE "text/plain; charset=utf-8")

string(REPEAT "." 80 line)
string(REPLACE "|" ";" names "${FILES}")
set(arrays "")
set(rows "")
set(number 0)
file(READ "${FOLDER}/uPlot.txt" published)
foreach(name IN LISTS names)
  if(name MATCHES "^uPlot.*(js|css)$")
    file(SHA256 "${FOLDER}/${name}" hash)
    string(FIND "${published}" "${hash}  ${name}" place)
    if(place EQUAL -1)
      message(FATAL_ERROR "${name} isn't the published one, whose hash uPlot.txt has")
    endif()
  endif()
  file(READ "${FOLDER}/${name}" bytes HEX)
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
  string(REGEX REPLACE "(${line})" "\\1\n" bytes "${bytes}")
  string(REGEX REPLACE ".*\\." "" kind "${name}")
  string(REPLACE "index.html" "" path "/${name}")
  string(APPEND arrays "constexpr unsigned char FILE_${number}[] = {\n${bytes}\n};\n")
  string(APPEND rows "    {\"${path}\", \"${type_${kind}}\",\n"
                     "     {reinterpret_cast<const char *>(FILE_${number}), sizeof FILE_${number}}},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE "${OUTPUT}"
     "#include \"avwatch/page/assets.h\"\n\nnamespace avwatch {\nnamespace {\n\n${arrays}\n"
     "const asset ASSETS[] = {\n${rows}};\n\n} // namespace\n\n"
     "std::span<const asset> assets() {\n    return ASSETS;\n}\n\n} // namespace avwatch\n")
