"""Runs the job that the tutorial shows for CI, as the project of somebody who has boardkit in a folder.

Usage: ci_job.py SOURCE_DIR BUILD_DIR CXX. Packages are not installed, and boardkit is not built again: the build that is there
takes its place, and that part of the job has to be what the README says. Ends with 77 where boards can't be simulated.
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile

source, build = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve()
job = re.search(r"(?s)```yaml\n.*?```", (source / "docs/without-a-board.md").read_text())[0]
lines = [" ".join(line.split()) for line in re.findall(r"(?m)^ +- (.*(?:\n +(?!- |`)\S.*)*)", job)]
readme = (source / "README.md").read_text()
complaints = []


def take(beginning):
    """The job's lines that begin so; they are not run."""
    taken = [line for line in lines if line.startswith(beginning)]
    for line in taken:
        lines.remove(line)
    return taken or complaints.append(f"The job has no line {beginning!r}.") or [""]


update, install = take("apt-get ")
needed = set(re.search(r"sudo apt install (cmake .*)", readme)[1].split())
unknown = set(install.split()[3:]) - needed - {"socat"}
if unknown:
    complaints.append(f"The job installs what the README does not name: {unknown}")
configure = take("cmake -S boardkit ")[0].replace("-S boardkit -B boardkit/build", "-S . -B build/own")
if configure not in readme:
    complaints.append(f"The README does not configure so: {configure}")
take("cmake --build boardkit/build")

if subprocess.run([build / "sim/boardsim", "--", "true"], stderr=subprocess.DEVNULL).returncode != 0:
    print("Boards can't be simulated here.")
    sys.exit(77)
with tempfile.TemporaryDirectory() as project:
    project = pathlib.Path(project)
    (project / "boardkit").mkdir()
    (project / "boardkit/build").symlink_to(build)
    page = (source / "docs/install.md").read_text()
    lists = re.search(r"(?s)```cmake\n(cmake_minimum_required.*?)```", page)[1]
    suite = re.search(r"(?s)```cmake\n(enable_testing.*?)```", (source / "docs/without-a-board.md").read_text())[1]
    (project / "CMakeLists.txt").write_text(lists + suite)
    (project / "app.cpp").write_text((source / "examples/serial-echo.cpp").read_text())
    test = project / "line-test.sh"
    test.write_text((source / "examples/line-test.sh").read_text())
    test.chmod(0o755)
    ran = subprocess.run(["bash", "-ex"], input="\n".join(lines) + "\n", cwd=project, text=True, capture_output=True,
                         env={**os.environ, "CXX": sys.argv[3]})
    if ran.returncode != 0 or "100% tests passed, 0 tests failed out of 1\n" not in ran.stdout:
        complaints.append(f"The job ends with {ran.returncode}:\n{ran.stdout}{ran.stderr}")

print("\n".join(complaints) or f"{len(lines)} lines ran.")
sys.exit(1 if complaints or len(lines) < 5 else 0)
