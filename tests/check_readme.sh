#!/bin/sh
# check_readme.sh README PROGRAM: the program that the page shows is the one that is built, to the letter.
awk '/^```c$/ { show = 1; next } /^```$/ { show = 0 } show' "$1" | diff - "$2"
