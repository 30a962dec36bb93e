# Run at build time: writes OUTPUT, a C++ source that knows the SHA-256 of each of FILES.
set(entries "")
foreach(file IN LISTS FILES)
  file(SHA256 "${file}" digest)
  get_filename_component(name "${file}" NAME)
  string(APPEND entries "    {\"${name}\", \"${digest}\"},\n")
endforeach()
file(WRITE "${OUTPUT}" "#include \"tools/vorldiag/status/shippedfiles.h\"

namespace {

struct ShippedFile {
  const char* name;
  const char* sha256;
};

constexpr ShippedFile kFiles[] = {
${entries}};

}  // namespace

std::string ShippedSha256(const std::string& name) {
  for (const ShippedFile& file : kFiles) {
    if (name == file.name) {
      return file.sha256;
    }
  }
  return \"\";
}
")
