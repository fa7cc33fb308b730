#!/usr/bin/env bash
# Installs the build into a temporary prefix and imports the package from
# that copy alone, with the interpreter it was built for. The package's
# folder below the prefix must be one that interpreter searches below
# /usr/local, so that after `cmake --install` no PYTHONPATH is needed.
set -euo pipefail
build_dir=$1
python=$2
package_dir=$3
# ON when the build wrote the type stub (mypy's stubgen was there).
stubs=${4:-OFF}

"$python" -c "import sys; sys.exit(0 if '/usr/local/$package_dir' in sys.path else
    '$python does not search /usr/local/$package_dir: set ORVACCESS_PYTHON_INSTALL_DIR')"

work=$(mktemp -d "${TMPDIR:-/tmp}/orvpyinstall-XXXXXX")
trap 'rm -rf "$work"' EXIT
cmake --install "$build_dir" --prefix "$work" >/dev/null

# Out of the build tree, the library found through the module's own run path.
cd "$work"
env -u LD_LIBRARY_PATH PYTHONPATH="$work/$package_dir" "$python" -c "
import orvaccess
with open('/proc/self/maps') as f:
    libraries = {line.split()[-1] for line in f if 'liborvaccess' in line or '_orvaccess' in line}
assert libraries and all(p.startswith('$work/') for p in libraries), libraries
import pathlib
package = pathlib.Path(orvaccess.__file__).parent
typed = [(package / name).is_file() for name in ('_orvaccess.pyi', 'py.typed')]
assert typed == [$([ "$stubs" = ON ] && echo True || echo False)] * 2, ('type stub and py.typed installed', typed)
orvaccess.ErrorCode.ORVACCESS_ERR_BAD_TRACKING_PKT.message
orvaccess.Access()
print('orvaccess', orvaccess.__version__, 'imports from', orvaccess.__file__)
"
