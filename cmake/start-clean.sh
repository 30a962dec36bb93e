# Read first by ./run and ./test: begins the script once more with an environment of its own, so
# that a run depends on nothing that the caller's shell has set. The script has gone to its folder. Kept are only the variables named
# here: the way to the network, the terminal, and what an engineer sets on purpose (README.md).

kept_variables=(HOME TERM http_proxy https_proxy no_proxy HTTP_PROXY HTTPS_PROXY NO_PROXY
  CMAKE_C_COMPILER_LAUNCHER CMAKE_CXX_COMPILER_LAUNCHER CCACHE_DIR CCACHE_BASEDIR CCACHE_NOHASHDIR
  VORL_TEST_SEED VORL_TEST_LIMIT_SECONDS VORL_TEST_LONG)

# The process keeps its number, and nobody else has it.
if [ "${VORL_CLEAN_START:-}" != $$ ]; then
  kept=()
  for variable in "${kept_variables[@]}"; do
    [ -z "${!variable+set}" ] || kept+=("$variable=${!variable}")
  done
  exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin VORL_CLEAN_START=$$ "${kept[@]}" \
    "$BASH" "./${0##*/}" "$@"
fi
unset VORL_CLEAN_START
. cmake/environment.sh
