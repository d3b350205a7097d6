# Turns the file FROM into the elements of an array, TO.
file(READ ${FROM} content HEX)
string(REGEX REPLACE "(..)" "0x\\1," content "${content}")
string(REGEX REPLACE "((0x..,)(0x..,)?(0x..,)?(0x..,)?(0x..,)?(0x..,)?(0x..,)?(0x..,)?)" "\\1\n" content "${content}")
file(WRITE ${TO} "${content}")
