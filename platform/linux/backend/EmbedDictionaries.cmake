# Writes a source file with the dictionaries of a folder.
#   cmake -DFOLDER=... -DOUTPUT=... -P EmbedDictionaries.cmake
file(GLOB files "${FOLDER}/*.zdict")
list(SORT files)
set(arrays "")
set(list "")
foreach(file ${files})
  get_filename_component(name "${file}" NAME_WE)
  file(READ "${file}" bytes HEX)
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
  string(REGEX REPLACE "(.{96})" "\\1\n" bytes "${bytes}")
  string(APPEND arrays "constexpr char k${name}[] = {\n${bytes}};\n\n")
  string(APPEND list "        {k${name}, sizeof k${name}},\n")
endforeach()
file(WRITE "${OUTPUT}" "#include \"backend/Compression.h\"\n\nnamespace kyo::orx {\n\nnamespace {\n\n${arrays}}  // namespace\n
const std::vector<std::string_view>& builtInDictionaries() {
    static const std::vector<std::string_view> all{\n${list}    };
    return all;
}\n\n}  // namespace kyo::orx\n")
