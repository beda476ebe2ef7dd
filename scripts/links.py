"""Checks the links of a folder of pages. Used by scripts that make or install documents."""
import html.parser
import pathlib
import urllib.parse


class Page(html.parser.HTMLParser):
    """The anchors of a page, its links, and what a browser loads for it."""

    def __init__(self, text):
        super().__init__()
        self.anchors = {""}
        self.links = []
        self.loaded = []
        self.feed(text)

    def handle_starttag(self, tag, attributes):
        values = dict(attributes)
        self.anchors.update(values[name] for name in ("id", "name") if values.get(name))
        if tag in ("a", "area") and values.get("href"):
            self.links.append(values["href"])
        elif tag != "a":
            self.loaded += [values[name] for name in ("src", "href") if values.get(name)]


IN_PAGE = ("data:", "javascript:")


def is_elsewhere(link):
    return bool(urllib.parse.urlsplit(link).scheme or urllib.parse.urlsplit(link).netloc)


def faults_of(folder):
    """Returns a line for each link of a page to a file or an anchor that does not exist, and for each file that a page loads from
    outside of the folder."""
    folder = pathlib.Path(folder).resolve()
    pages = {path: Page(path.read_text(errors="replace")) for path in sorted(folder.rglob("*.html"))}
    faults = [] if pages else [f"{folder}: no pages"]
    for path, page in pages.items():
        name = path.relative_to(folder)
        faults += [f"{name}: loads {link}" for link in page.loaded if is_elsewhere(link) and not link.startswith(IN_PAGE)]
        for link in page.links + page.loaded:
            if is_elsewhere(link):
                continue
            parts = urllib.parse.urlsplit(link)
            file = (path.parent / urllib.parse.unquote(parts.path)).resolve() if parts.path else path
            if not file.is_file() or folder not in file.parents:
                faults.append(f"{name}: {link}: no such file in this folder")
            elif parts.fragment and file in pages and urllib.parse.unquote(parts.fragment) not in pages[file].anchors:
                faults.append(f"{name}: {link}: no such anchor")
    return faults
