"""The list of planted faults: its rows, and the places in the sources that they mean."""
import collections
import difflib
import pathlib
import re

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent
LIST = HERE / "plant_faults.tsv"
ROOMS = ["include", "lib", "msg", "mem", "db", "img", "tools"]
MARKS = 4096  # numbers of faults are below

Fault = collections.namedtuple("Fault", "number file anchor new reason")
Place = collections.namedtuple("Place", "fault file start end new")  # offsets of what is replaced

# --- Words of C++ ----------------------------------------------------------------------------------

WORD = re.compile(r"""
    (?P<skip>\s+|//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:[^\n\\]|\\\n|\\.)*)
  | (?P<word>R"\((?:.|\n)*?\)"[a-z]* | "(?:[^"\\\n]|\\.)*"(?:sv)? | '(?:[^'\\\n]|\\.)+'
      | [A-Za-z_]\w* | \.?\d(?:[eEpP][+-]|[\w.'])* | << | >>(?==)| <=> | <= | >= | == | != | && | \|\|
      | \+\+ | -- | -> | :: | [-+*/%&|^]= | \S)
    """, re.X | re.S | re.M)
Word = collections.namedtuple("Word", "text start end")


def words_of(text):
    words, at = [], 0
    while at < len(text):
        match = WORD.match(text, at)
        if match.lastgroup == "word":
            words.append(Word(match.group(), match.start(), match.end()))
        at = match.end()
    return words


def plain(words):
    """The words without `ka::`, each with its index among all."""
    result = []
    i = 0
    while i < len(words):
        if words[i].text == "ka" and i + 1 < len(words) and words[i + 1].text == "::":
            i += 2
            continue
        text = words[i].text
        result.append((text[4:] if text.startswith("img_") else text, i))
        i += 1
    return result


def with_namespace(words, at):
    """A word, or the `ka` in front of it."""
    while at >= 2 and words[at - 1].text == "::" and words[at - 2].text == "ka":
        at -= 2
    return at


class Source:
    def __init__(self, path):
        self.path = path
        self.text = path.read_text()
        self.words = words_of(self.text)
        self.plain = plain(self.words)
        self.key = [text for text, _ in self.plain]
        self.at = collections.defaultdict(list)  # of a word: where it comes
        for i, text in enumerate(self.key):
            self.at[text].append(i)

    def find(self, wanted):
        if not wanted:
            return []
        return [i for i in self.at[wanted[0]] if self.key[i:i + len(wanted)] == wanted]

    def offsets(self, first, last):
        """The text from a plain word to another; a `ka::` in front belongs to it."""
        begin = with_namespace(self.words, self.plain[first][1])
        return self.words[begin].start, self.words[self.plain[last][1]].end


# --- The list and its places -----------------------------------------------------------------------

def read_list(path=LIST):
    faults = []
    for line in path.read_text().splitlines():
        if line and not line.startswith("#"):
            number, *rest = line.split("\t")
            faults.append(Fault(int(number), *rest))
    numbers = {fault.number for fault in faults}
    assert len(numbers) == len(faults), "a number comes twice"
    assert not numbers or 0 < min(numbers) and max(numbers) < MARKS
    return faults


def numbers_of(text):
    result = set()
    for part in text.split(","):
        first, _, last = part.partition("-")
        result.update(range(int(first), int(last or first) + 1))
    return result


def all_sources(tree):
    return {str(path.relative_to(tree)): Source(path) for room in ROOMS
            for path in sorted((tree / room).rglob("*")) if path.suffix in (".cc", ".h")}


def adapt(source, old, first, new):
    """The new text with the words of the source where it repeats those of the anchor."""
    new_words = words_of(new)
    new_plain = plain(new_words)
    matcher = difflib.SequenceMatcher(None, old, [text for text, _ in new_plain], autojunk=False)
    result = []
    for kind, i1, i2, j1, j2 in matcher.get_opcodes():
        if kind == "equal":
            result += [source.text[slice(*source.offsets(first + i, first + i))] for i in range(i1, i2)]
        elif j1 < j2:
            begin = with_namespace(new_words, new_plain[j1][1])
            result += [word.text for word in new_words[begin:new_plain[j2 - 1][1] + 1]]
    return " ".join(result).replace("> >", ">>")


def locate(fault, sources):
    before, rest = fault.anchor.split("«")
    part, behind = rest.split("»")
    before, part, behind = ([text for text, _ in plain(words_of(piece))]
                            for piece in (before, part, behind))
    wanted = before + part + behind
    for group in ([fault.file], sources):
        found = [(name, at) for name in group if name in sources for at in sources[name].find(wanted)]
        if len(found) == 1:
            name, at = found[0]
            first = at + len(before)
            start, end = sources[name].offsets(first, first + len(part) - 1)
            return Place(fault, name, start, end, adapt(sources[name], part, first, fault.new))
        if found:
            return f"found {len(found)} times"
    return None


def render(text, places, start, end):
    """The text from start to end with the faults that lie inside planted."""
    result, at = [], start
    places = sorted(places, key=lambda place: (place.start, -place.end))
    while places:
        outer = [place for place in places
                 if (place.start, place.end) == (places[0].start, places[0].end)]
        first = outer[0]
        inner = [place for place in places if place not in outer and place.start < first.end]
        places = [place for place in places if place not in outer and place not in inner]
        result.append(text[at:first.start])
        old = text[first.start:first.end]
        if any(place.end > first.end for place in inner):
            raise ValueError(f"faults {first.fault.number} and {inner[0].fault.number} overlap")
        if inner and (inner[0].start, inner[0].end) != (first.start, first.end):
            old = render(text, inner, first.start, first.end)
        piece = old if old.endswith(";") else f"({old})"
        for place in outer:
            switch = f"LUMORA_FAULT({place.fault.number})"
            if old.endswith(";"):
                piece = f"if ({switch}) {{ {place.new} }} else {{ {piece} }}"
            else:
                if place.new in ("false", "true"):  # for a pointer or what else is a condition
                    piece = f"static_cast<bool>({piece})"
                piece = f"({switch} ? ({place.new}) : {piece})"
        result.append(piece)
        at = first.end
    return "".join(result) + text[at:end]
