# Read by ./run and ./test: installs the Debian packages that are missing.

# install_packages PACKAGE...
install_packages() {
  local missing=() package
  for package in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
      missing+=("$package")
  done
  if [ ${#missing[@]} -eq 0 ]; then
    echo "All packages are installed."
    return
  fi
  local root=()
  [ "$(id -u)" -eq 0 ] || root=(sudo)
  echo "Installing ${missing[*]} (a few minutes on a new machine)"
  "${root[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${root[@]}" apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
}

build_packages=(cmake ninja-build g++-mingw-w64-x86-64-posix wine64 googletest
  libcli11-dev nlohmann-json3-dev libz-mingw-w64-dev)
lint_packages=(clang-format clang-tidy cppcheck python3-jsonschema gdb)
# What shows the diagnosis tool's report, about 80 MB, and reads its pictures.
browser_packages=(chromium python3-pil)
# The installer package and what ./dist makes besides.
dist_packages=(wixl msitools faketime osslsigncode openssl zip unzip)

# step TEXT: says what happens next.
step() {
  printf '\n== %s\n' "$*"
}
