"""The options and words of the programs are those that their help lists: in the manual pages, the documents
and bash's completions, neither more nor fewer. What is installed is whole, and of one version.
Usage: test_options.py JORN AVCORE AVWATCH JORNCTL PROJECT CMAKE BUILD"""
import functools
import os
import re
import subprocess
import sys
import tempfile
import unittest

PROJECT, CMAKE, BUILD = sys.argv[5:]
del sys.argv[5:]
PROGRAMS = {os.path.basename(path): path for path in (sys.argv.pop() for _ in range(4))}
ANYWHERE = {"-h", "--help", "--version"}
COMPLETE = 'source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _jorn; printf "%s\\n" "${COMPREPLY[@]}"'


def read(path):
    with open(f"{PROJECT}/{path}") as file:
        return file.read()


@functools.cache
def help_of(program, *words):
    """Options and subcommands."""
    said = subprocess.run([PROGRAMS[program], *words, "--help"], text=True, check=True,
                          stdout=subprocess.PIPE).stdout
    options = set(",".join(re.findall(r"^ +(-\S+)", said, re.M)).split(",")) - ANYWHERE - {""}
    return options, set(re.findall(r"^  ([a-z]\S*)", said.partition("\nSubcommands:")[2], re.M))


def levels(program, *words):
    """What the help lists by the words before it, for the words of each subcommand."""
    options, subcommands = help_of(program, *words)
    found = {words: (options, subcommands)}
    for word in subcommands:
        found |= levels(program, *words, word)
    return found


def all_options(program):
    return set().union(*(options for options, _ in levels(program).values()))


def manual(page):
    """Options: single ones may share a dash."""
    source = read(f"docs/man/{page}")
    return {"--" + name for name in re.findall(r"\bFl Fl ([\w-]+)", source)} | {
        "-" + letter for letters in re.findall(r"(?<!Fl )\bFl (?!Fl\b)([a-zA-Z]+)", source) for letter in letters}


def document(path):
    """Options in what is code there, and dnsmasq's left out."""
    code = re.findall(r"^    .*|`[^`\n]*`", read(path), re.M)
    ours, foreign = ({option for piece in code if ("dnsmasq" in piece) == of_dnsmasq
                      for option in re.findall(r"(?<![\w-])--?[a-zA-Z][\w-]*", piece)}
                     for of_dnsmasq in (False, True))
    return ours - foreign


def completed(program, *words):
    return set(subprocess.run(["bash", "-c", COMPLETE, f"{PROJECT}/shared/completion.bash", PROGRAMS[program],
                               *words], text=True, check=True, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT).stdout.split())


class Options(unittest.TestCase):
    def test_manual_pages(self):
        for program, page in (("jorn", "jorn.8"), ("avcore", "avcore.8"), ("avwatch", "avwatch.8"),
                              ("jornctl", "jornctl.1")):
            self.assertEqual(manual(page) - ANYWHERE, all_options(program), page)

    def test_documents(self):
        tools = "avcore", "avwatch", "jornctl"
        known = set().union(ANYWHERE, *map(all_options, tools))
        for program in tools:
            described = document(f"docs/{program}.md")
            self.assertEqual(all_options(program) - described, set(), program)
            self.assertEqual(described - known, set(), program)

    def test_completions(self):
        for program in PROGRAMS:
            found = levels(program)
            for words, (options, subcommands) in found.items():
                if program in ("avwatch", "jornctl"):  # which take those of the words before as well
                    options = set().union(*(found[words[:n]][0] for n in range(len(words) + 1)))
                with self.subTest(program, words=words):
                    self.assertEqual(completed(program, *words, "-") - ANYWHERE, options)
                    if subcommands:
                        self.assertEqual(completed(program, *words, ""), subcommands)
        readme = f"{PROJECT}/README.md"
        for offered, *words in (("lo", "jorn", "-i", "l"), ("lo", "jornctl", "--socket", "x", "show", "url", "l"),
                                ("off", "jornctl", "debug", "of"), (readme, "jornctl", "apply", readme[:-2]),
                                ("--strict", "jornctl", "apply", "a[", "--st"),
                                ("tcx", "avcore", "setup", "--attach", "t"),
                                (readme, "avcore", "-o", "x", "-r", readme[:-2])):
            self.assertEqual(completed(*words), {offered}, words)

    def test_installed(self):
        with open(f"{BUILD}/CMakeCache.txt") as cache:
            version = re.search("^CMAKE_PROJECT_VERSION:STATIC=(.+)$", cache.read(), re.M)[1]
        left = set(os.listdir(f"{PROJECT}/examples")) - {"box.json", "wifi.json"}  # the demo's
        for component, programs in (("JORN", {"jorn", "avcore", "jornctl"}), ("WATCH", {"avwatch"})):
            with tempfile.TemporaryDirectory() as folder:
                subprocess.run([CMAKE, "--install", BUILD, "--prefix", folder, "--component", component],
                               check=True, stdout=subprocess.DEVNULL)
                installed = {os.path.relpath(f"{path}/{name}", folder)
                             for path, _, names in os.walk(folder) for name in names}
                found = {os.path.basename(path) for path in installed if re.match("s?bin/", path)}
                self.assertEqual(found, programs)
                for path in installed:
                    if "bin/" in path:
                        said = subprocess.check_output([f"{folder}/{path}", "--version"], text=True)
                        self.assertEqual(said, f"{os.path.basename(path)} {version}\n")
                        self.assertIn(f"share/bash-completion/completions/{os.path.basename(path)}", installed)
                    elif "/man/" in path:
                        with open(f"{folder}/{path}") as page:
                            text = page.read()
                        self.assertIn(f"\n.Os jorn {version}\n", text)
                        self.assertNotIn("@", text, path)
                left -= {os.path.basename(path) for path in installed if "/examples/" in path}
        self.assertEqual(left, set())


if __name__ == "__main__":
    unittest.main()
