# Read by every script here: what holds whatever the shell that started it has set. Wine maps file
# names by the locale, so without UTF-8 it cannot make most of them.
LC_ALL=C.UTF-8
TZ=UTC
export LC_ALL TZ
umask 022
