#!/usr/bin/env bash
# Makes the wheel, installs it into a clean environment and runs the tests of the package there, with no variable set.
#   python_test.sh BUILD_FOLDER
set -euo pipefail

build=$1
top=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$top/scripts/wheel" --libraries "$build/lib" --into "$work"
python3 -m venv "$work/venv"
cd "$work"
env -i venv/bin/pip install --quiet --no-index --disable-pip-version-check "$work"/*.whl
env -i venv/bin/python -W error "$top/tests/python/reporter_test.py" "$build/bin/veldrep" "$top/examples/python/first.py"
