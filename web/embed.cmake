# Writes page_files.cpp: cmake -D OUTPUT=... -D FILES=a;b -P embed.cmake
set(rows "")
foreach(file ${FILES})
    file(READ ${file} content)
    cmake_path(GET file FILENAME name)
    string(APPEND rows "    {\"${name}\", R\"~~~~(${content})~~~~\"},\n")
endforeach()
file(WRITE ${OUTPUT} "#include \"web/page_files.h\"\n\nnamespace {\n\nconstexpr page_file FILES[] = {\n${rows}};\n\n"
    "}  // namespace\n\nstd::span<const page_file> page_files() {\n    return FILES;\n}\n")
