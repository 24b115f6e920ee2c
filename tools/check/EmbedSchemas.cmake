# Writes a source file with the schemas of docs/schemas/ as texts.
#   cmake -DSCHEMA_DIR=... -DOUTPUT=... -P EmbedSchemas.cmake
set(kinds Collector Application Catalog Manifest)
set(content "#include \"tools/check/Schema.h\"\n\nnamespace vlmCheck {\n\nconst char* schemaText(Kind kind) {\n    switch (kind) {\n")
foreach(kind ${kinds})
  string(TOLOWER "${kind}" stem)
  file(READ "${SCHEMA_DIR}/${stem}.schema.json" text)
  string(APPEND content "        case Kind::${kind}:\n            return R\"schema(${text})schema\";\n")
endforeach()
string(APPEND content "    }\n    return \"{}\";\n}\n\n}  // namespace vlmCheck\n")
file(WRITE "${OUTPUT}" "${content}")
