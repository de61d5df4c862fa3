# Fails when the README's quick start (between <!-- quickstart --> markers) is not the text of
# the example program it shows.
file(READ ${README} readme)
file(READ ${SOURCE} source)
string(REGEX MATCH "<!-- quickstart -->\n```cpp\n(.*)```\n<!-- /quickstart -->" found "${readme}")
if(NOT found OR NOT CMAKE_MATCH_1 STREQUAL source)
  message(FATAL_ERROR "README.md's quick start differs from ${SOURCE}")
endif()
