"""What the package's generators share."""


def write_if_changed(path, text):
    """Writes text to path unless it already holds it, so that a build does
    not redo what depends on the file for nothing."""
    try:
        with open(path, encoding="utf-8") as f:
            if f.read() == text:
                return
    except FileNotFoundError:
        pass
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)
