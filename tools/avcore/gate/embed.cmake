# cmake -D OBJECT=FILE -D SOURCE=FILE -P embed.cmake: writes a source file that holds the object.
file(READ ${OBJECT} bytes HEX)
string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
string(REGEX REPLACE "(................................................................................)"
       "\\1\n" bytes "${bytes}")
file(WRITE ${SOURCE} "#include \"avcore/gate/gate_object.h\"\n
namespace avcore {
alignas(8) const unsigned char GATE_OBJECT[] = {\n${bytes}};
const size_t GATE_OBJECT_SIZE = sizeof GATE_OBJECT;
} // namespace avcore\n")
