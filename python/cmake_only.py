"""The build backend of python/pyproject.toml: it builds nothing.

The compiled module is linked against the liborvaccess that the same CMake
build makes, so pip cannot build the package on its own; asked to, it hears
how to build and install it instead.
"""

_HOW = (
    "orvaccess is built by CMake together with liborvaccess, not by pip: "
    "cmake -S . -B build && cmake --build build --target orvaccess_python builds it into build/python "
    "(PYTHONPATH=build/python), and cmake --install build installs it (see README.md, section Python)"
)


def _refuse(*_args: object, **_kwargs: object) -> None:
    raise RuntimeError(_HOW)


get_requires_for_build_wheel = get_requires_for_build_sdist = get_requires_for_build_editable = _refuse
prepare_metadata_for_build_wheel = prepare_metadata_for_build_editable = _refuse
build_wheel = build_sdist = build_editable = _refuse
