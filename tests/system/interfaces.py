"""What others rely on, as texts that two versions can be compared by: the declarations of C headers and
JSON schemas. What has changed is said by its name, under which CHANGELOG.md lists it."""
import functools
import json
import operator
import os
import re

PROJECT = os.path.join(os.path.dirname(os.path.realpath(__file__)), "../..")
COPIES = PROJECT + "/tests/compat"
# An operation that is one more there is missing in the library that a device has.
PLATFORM = tuple(f"src/platform/{name}.h" for name in ("crashdump", "psm", "psms", "records", "wdlm"))
HEADERS = PLATFORM + ("src/platform/host/messages/av_messages.h", "src/platform/host/messages/bus_messages.h",
                      "src/control/records/commands.h")
TAKEN, TOLD = "examples/jorn.schema.json", "examples/watch.schema.json"
OURS = "AV_SEND_BUFFER", "AV_LAST_ONE_WAY_OP"  # declared there, and nobody else's business
WORDS = ("$schema", "title", "description")
MEMBERS = "properties", "definitions"
# Keywords of a bound, and which change of it takes less.
BOUNDS = {name: operator.lt if name.startswith("max") else operator.gt
          for name in ("maximum", "maxLength", "maxItems", "minimum", "minLength", "minItems")}


def read(path):
    with open(path if os.path.isabs(path) else f"{PROJECT}/{path}") as file:
        return file.read()


def version():
    return re.search(r"^project\(jorn VERSION ([\d.]+)", read("CMakeLists.txt"), re.M)[1]


def numbers(text):
    return tuple(map(int, text.split(".")))


def versions():
    """Those whose copies are kept, the last one last."""
    return sorted(os.listdir(COPIES), key=numbers)


def pieces(text):
    """The declarations of a header, each on a line of its own."""
    text = re.sub(r"//[^\n]*", "", text)
    yield from (" ".join(line.split()) for line in re.findall(r"^#define (?!RECORD_HOLDS).*", text, re.M))
    text = re.sub(r"^#.*|extern \"C\" {|\b(RECORD_HOLDS|static_assert)\([^;]*;", "", text, flags=re.M)
    text = re.sub(r"(?<=\() | (?=\))", "", " ".join(text.split()))
    depth, begin = 0, 0
    for i, letter in enumerate(text):
        depth = max(0, depth + {"{": 1, "}": -1}.get(letter, 0))
        is_body = letter == "}" and text[i + 1:i + 2] != ";"  # of an inline function
        if depth == 0 and (letter == ";" or is_body):
            if not is_body:
                yield text[begin:i].strip()
            begin = i + 1


def declarations(text):
    """By their names; the members of an enumeration are declarations of their own."""
    found = {}
    for piece in pieces(text):
        if piece.startswith("enum"):
            scope = "".join(name + "::" for name in re.findall(r"^enum class (\w+)", piece))
            found |= {scope + member.split(" = ")[0]: member for member in
                      re.split(r" ?, ?", re.search(r"{ (.*?),? }", piece)[1])}
        else:
            name = re.search(r"^(?:struct|#define) (\w+)(?= [^*]|$)|\(\*(\w+)\)|(\w+)(?=\(| =|\[|$)", piece)
            found[next(filter(None, name.groups()))] = piece
    return {name: piece for name, piece in found.items() if name not in OURS}


def broken_declarations(path, before, now):
    before, now = declarations(before), declarations(now)
    more = {name for name in now.keys() - before.keys() if path in PLATFORM and re.search(r"\w\(", now[name])}
    return {name for name in before if now.get(name) != before[name]} | more


def of_all(compare, before, now, place):
    """Of schemas by name, none of which may go."""
    return set().union(*(compare(schema, now[name], f"{place}/{name}") if name in now else {f"{place}/{name}"}
                         for name, schema in before.items()))


def of_some(compare, before, now, place):
    """Of alternatives, each of which one has to be as good as."""
    return {f"{place}/{i}" for i, schema in enumerate(before) if all(compare(schema, other) for other in now)}


def broken_parts(before, now, place="", taken=True):
    """Where a schema doesn't take all that it took, of what people and programs write (`taken`), or has no
    longer what programs may rely on that read. They pass over what they don't know: members, values and
    messages."""
    compare = functools.partial(broken_parts, taken=taken)
    found = {f"{place}/{keyword}" for keyword in now.keys() - before.keys() - {*WORDS, *MEMBERS} if taken}
    for keyword, was in before.items():
        here, there = now.get(keyword), f"{place}/{keyword}"
        if keyword in MEMBERS:
            found |= of_all(compare, was, here or {}, place)
        elif keyword in WORDS or here == was or taken and here is None:
            pass
        elif here is None:
            found.add(there)
        elif keyword in ("required", "enum"):
            more, fewer = (here, was) if taken and keyword == "required" else (was, here)
            found |= {f"{place}/{name}" for name in set(more) - set(fewer)}
        elif keyword == "items":
            found |= compare(was, here, place)
        elif keyword == "oneOf" or taken and keyword == "anyOf":
            found |= of_some(compare, was, here, there)
        elif taken and keyword in BOUNDS:
            found |= {there} if BOUNDS[keyword](here, was) else set()
        elif taken and keyword == "type":
            was, here = ({each} if isinstance(each, str) else {*each} for each in (was, here))
            found |= {there} if was - here else set()
        else:
            found.add(there)
    return found


def broken_schema(path, before, now):
    return {os.path.basename(path) + place
            for place in broken_parts(json.loads(before), json.loads(now), taken=path == TAKEN)}


def said_broken(changes, since):
    """What CHANGELOG.md lists as incompatible in the versions behind that one."""
    newer = changes.partition(f"\n## {since}\n")[0]
    sections = re.findall(r"^### Incompatible\n(.*?)(?=^##|\Z)", newer, re.M | re.S)
    return {name for section in sections for name in re.findall(r"^- `([^`]+)`", section, re.M)}
