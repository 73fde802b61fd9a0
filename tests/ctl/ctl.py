"""What the tests of boardctl share: running it, plainly or on a simulated board, as root or as an ordinary user.

The environment names BOARDCTL, BOARDSIM and SOURCE, the source folder. A test is a method whose name is a sentence
without blanks; each is a ctest of its own.
"""
import functools
import json
import os
import pathlib
import re
import select
import shlex
import shutil
import subprocess
import sys
import tempfile
import textwrap
import time
import unittest

BOARDCTL = os.environ["BOARDCTL"]
BOARDSIM = os.environ["BOARDSIM"]
SOURCE = pathlib.Path(os.environ["SOURCE"])
SCHEMA = json.loads((SOURCE / "docs/boardctl-schema.json").read_text())
PATIENCE = 100  # seconds, after which something hangs

# Fixed texts, of the library and of the tool, that several tests expect.
POPEN_FAILED = "popen failed"
NO_MEMORY_FOR_POPEN = POPEN_FAILED + ": Cannot allocate memory"
NO_IP = "ip: not found"
MEMORY_NOT_OPENED = "ReadFromMemory Open /dev/mem failed"
NOT_WRITTEN = "Error writing to file descriptor"
WATCHDOG_NOT_OPENED = " Could not open watchdog device!"
DISK_FULL = "Standard output can't be written: No space left on device"

os.environ["PATH"] += ":/usr/sbin:/sbin"
os.environ["LC_ALL"] = "C"
os.environ.pop("NO_COLOR", None)
os.environ.pop("TERM", None)


def differences(value, schema, where):
    """Where a value is not as a schema says, of as much of JSON Schema as ours uses."""
    types = {"object": dict, "array": list, "string": str, "boolean": bool, "integer": int, "number": (int, float),
             "null": type(None)}
    known = {"type", "properties", "required", "additionalProperties", "items", "enum", "const", "pattern", "description"}
    assert set(schema) <= known, schema
    wanted = schema.get("type", [])
    wanted = wanted if isinstance(wanted, list) else [wanted]
    is_number_of_its_own = isinstance(value, bool) and "boolean" not in wanted
    if wanted and (is_number_of_its_own or not any(isinstance(value, types[name]) for name in wanted)):
        yield f"{where} is {value!r}, not {wanted}"
        return
    if "enum" in schema and value not in schema["enum"] or "const" in schema and value != schema["const"]:
        yield f"{where} is {value!r}"
    if isinstance(value, str) and not re.search(schema.get("pattern", ""), value):
        yield f"{where} is {value!r}, not like {schema['pattern']}"
    if isinstance(value, dict):
        for key in schema["required"]:
            if key not in value:
                yield f"{where} has no {key}"
        for key, inner in value.items():
            if key not in schema["properties"]:
                yield f"{where} has {key}, which the schema does not know"
            else:
                yield from differences(inner, schema["properties"][key], f"{where}.{key}")
    if isinstance(value, list):
        for index, inner in enumerate(value):
            yield from differences(inner, schema["items"], f"{where}[{index}]")


def strict(text):
    """What JSON text holds: without a key twice, and without the numbers that Python reads and JSON does not have."""
    def object_of(pairs):
        assert len(dict(pairs)) == len(pairs), f"a key stands twice in {text}"
        return dict(pairs)

    def refuse(number):
        raise AssertionError(f"{number} in {text}")
    return json.loads(text, object_pairs_hook=object_of, parse_constant=refuse)


class Result:
    """What a finished program left behind."""

    def __init__(self, status, out, err):
        self.status, self.raw, self.err = status, out, err
        self.out = (out or b"").decode(errors="replace")

    @property
    def objects(self):
        """What was printed as JSON, one object per line, each of a kind that the schema has."""
        objects = [strict(line) for line in self.out.splitlines()]
        for found in objects:
            faults = list(differences(found, SCHEMA["$defs"][found["kind"]], found["kind"]))
            assert not faults, "\n".join(faults)
        return objects


def finish(process, given=None):
    try:
        out, err = process.communicate(given, timeout=PATIENCE)
    except subprocess.TimeoutExpired:
        process.kill()
        out, err = process.communicate()
        raise AssertionError(f"{process.args} hangs:\n{out.decode()}\n{err.decode()}") from None
    return Result(process.returncode, out, err.decode(errors="replace"))


def start(command, **keywords):
    keywords.setdefault("stdin", subprocess.DEVNULL)
    keywords.setdefault("stdout", subprocess.PIPE)
    keywords.setdefault("stderr", subprocess.PIPE)
    return subprocess.Popen(command, **keywords)


def end(process):
    """Nothing that a failed test has started goes on, and fills the disk."""
    if process.poll() is None:
        process.kill()
        process.wait()


def ctl(*arguments, given=None, **keywords):
    """Runs boardctl on this machine."""
    if given is not None:
        keywords["stdin"] = subprocess.PIPE
    return finish(start([BOARDCTL, *arguments], **keywords), given)


def bus_error(verb):
    """What a verb says where nothing answers at an address."""
    return (f"boardctl: {verb}: Bus error\n"
            "  cause    Nothing answers at that address: no memory and no device is there, or the device has no clock.\n"
            "  remedy   Check the address, and whether the device is switched on.\n")


def port_not_opened(device):
    return f"Open Serial Port '{device}' failed?"


@functools.lru_cache(maxsize=None)
def works(*command):
    """Whether a command that only tries something succeeds."""
    return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, check=False).returncode == 0


def shell(*arguments):
    """boardctl with the arguments, as a word of a shell's text."""
    return shlex.join([BOARDCTL, *arguments])


def without_rights(*arguments):
    """The same for a user who may do only what the modes of files allow him: root alone may do more."""
    return "setpriv --bounding-set=-all --inh-caps=-all " + shell(*arguments)


class TestCase(unittest.TestCase):
    """With a folder of its own, which is the current one."""

    maxDiff = None
    user = "root"  # or "ordinary": on the simulated board
    network = "private"  # of the board, or "none" where no test asks for it: making one takes half of the board's start

    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        before = os.getcwd()
        os.chdir(self.folder)
        self.addCleanup(os.chdir, before)

    def own_network(self):
        """The words that give a command a network of its own."""
        # Where user namespaces are forbidden, root's rights do.
        for words in (["unshare", "--map-root-user", "--net"], ["unshare", "--net"]):
            if works(*words, "true"):
                return words
        self.skipTest("no network of its own can be made here")

    def away_from_the_network(self):
        """The words that keep a command off this machine's network, should it get that far."""
        try:
            return self.own_network()
        except unittest.SkipTest:
            return []  # it has no rights over that one, either

    def board(self, *command, options=(), given=None, log=None):
        """Runs a command on a simulated board."""
        return finish(self.start_board(*command, options=options, given=given, log=log), given)

    def start_board(self, *command, options=(), given=None, log=None, output=subprocess.PIPE):
        """Starts it, and leaves it running."""
        simulator, as_user = BOARDSIM, []
        command = list(command)
        is_lowered = self.user == "ordinary" and os.geteuid() == 0
        lower = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if is_lowered else []
        if (is_lowered or os.geteuid() != 0) and not works(*lower, "unshare", "--map-root-user", "true"):
            self.skipTest("user namespaces are forbidden here")
        if is_lowered:
            place = self.programs_for_all()
            simulator = str(place / "boardsim")
            command = [word.replace(BOARDCTL, str(place / "boardctl")) for word in command]
            as_user = ["env", f"LD_LIBRARY_PATH={place}", f"GCOV_PREFIX={self.folder}", *lower]
        options = ["--net", self.network, *options]
        if log:
            options += ["--log", log]
        keywords = {} if given is None else {"stdin": subprocess.PIPE}
        process = start([*as_user, simulator, *options, "--", *command], stdout=output, **keywords)
        self.addCleanup(end, process)
        return process

    def programs_for_all(self):
        """A folder with copies of the programs and the library, where every user may read them."""
        place = pathlib.Path(self.folder) / "programs"
        if not place.exists():
            place.mkdir(mode=0o755)
            pathlib.Path(self.folder).chmod(0o777)
            for program in (BOARDSIM, BOARDCTL):
                shutil.copy(program, place)
            # As ldd does it, which starts several programs more.
            loaded = subprocess.run([BOARDCTL], env={"LD_TRACE_LOADED_OBJECTS": "1"}, capture_output=True, text=True, check=True)
            for library in re.findall("libboardkit.* => (.*) [(]", loaded.stdout):
                shutil.copy(library, place)
        return place

    def on_board(self, *arguments, **keywords):
        """Runs boardctl on a simulated board."""
        return self.board(BOARDCTL, *arguments, **keywords)

    def need_mounts_of_its_own(self):
        """Skips the test where nothing can be put in the place of /sys or /proc."""
        if not works("unshare", "--map-root-user", "--mount", "true"):
            self.skipTest("no mounts of its own can be made here")

    def some_of(self, cases):
        """All cases for root. Where rights make no difference, the first one shows that an ordinary user has enough."""
        return cases if self.user == "root" else cases[:1]

    def before_the_c_library(self, source):
        """The words of a shell that let a program call these functions of C in place of the C library's: what no kernel at
        hand would answer, or what must come at a certain moment."""
        pathlib.Path("before.c").write_text(textwrap.dedent(source))
        subprocess.run(["cc", "-shared", "-fPIC", "-o", "before.so", "before.c"], check=True)
        # In a build with the address sanitizer, its library need not come first.
        return f"ASAN_OPTIONS=detect_leaks=0:verify_asan_link_order=0 LD_PRELOAD={self.folder}/before.so"

    def driver_that(self, answers):
        """The words of a shell that let a command see another driver: none such is available, so the test changes what the
        driver says of itself. @answers are statements about a request and its argument."""
        return self.before_the_c_library("""
            #include <linux/serial.h>
            #include <linux/watchdog.h>
            #include <signal.h>
            #include <stdarg.h>
            #include <sys/ioctl.h>
            #include <sys/syscall.h>
            #include <unistd.h>
            int ioctl(int fd, unsigned long request, ...) {
              va_list arguments;
              va_start(arguments, request);
              void* argument = va_arg(arguments, void*);
              va_end(arguments);
              int result = (int)syscall(SYS_ioctl, fd, request, argument);
              if (result == 0) {
                %s
              }
              return result;
            }""" % answers)

    def signalling(self):
        """The words of a shell that let a program get SIGTERM at one of its calls of the kernel: that of the number in AT, or
        with ON set, at each from there on. What it starts gets none."""
        return self.before_the_c_library("""
            #include <fcntl.h>
            #include <signal.h>
            #include <stdarg.h>
            #include <stdlib.h>
            #include <sys/syscall.h>
            #include <unistd.h>
            static long left;
            static int goes_on;
            __attribute__((constructor)) static void begin(void) {
              const char* at = getenv("AT");
              left = at == 0 ? 0 : atol(at);
              goes_on = getenv("ON") != 0;
              unsetenv("AT");
            }
            static void count(void) {
              static int has_sent;
              if (left > 0 && --left == 0) {
                // The handler itself must come to its end.
                sigset_t blocked;
                sigprocmask(SIG_BLOCK, 0, &blocked);
                if (!has_sent || !sigismember(&blocked, SIGTERM)) {
                  syscall(SYS_kill, getpid(), SIGTERM);
                }
                has_sent = 1;
                left = goes_on;
              }
            }
            #define ARGUMENT(last) \\
              va_list arguments; va_start(arguments, last); void* argument = va_arg(arguments, void*); va_end(arguments)
            int open(const char* path, int flags, ...) {
              ARGUMENT(flags);
              count();
              return (int)syscall(SYS_openat, AT_FDCWD, path, flags, argument);
            }
            int open64(const char* path, int flags, ...) {
              ARGUMENT(flags);
              count();
              return (int)syscall(SYS_openat, AT_FDCWD, path, flags, argument);
            }
            int ioctl(int fd, unsigned long request, ...) {
              ARGUMENT(request);
              count();
              return (int)syscall(SYS_ioctl, fd, request, argument);
            }
            int close(int fd) {
              count();
              return (int)syscall(SYS_close, fd);
            }
            ssize_t write(int fd, const void* bytes, size_t size) {
              count();
              return syscall(SYS_write, fd, bytes, size);
            }
            ssize_t read(int fd, void* bytes, size_t size) {
              count();
              return syscall(SYS_read, fd, bytes, size);
            }""")

    def need(self, *programs):
        for program in programs:
            if shutil.which(program) is None:
                self.skipTest(f"There is no {program} here.")

    def wait_until(self, holds, what):
        """Waits until holds() is true, whatever the machine's load."""
        end = time.monotonic() + PATIENCE
        while not holds():
            self.assertLess(time.monotonic(), end, f"never seen: {what}")
            time.sleep(0.02)

    def wait_until_full(self, pipe):
        """Waits until nothing more fits into a pipe, by its writing end."""
        room = select.poll()
        room.register(pipe, select.POLLOUT)
        self.wait_until(lambda: not room.poll(0), "a full pipe")

    def wait_for_text(self, path, text):
        def is_there():
            try:
                return text in pathlib.Path(path).read_text()
            except FileNotFoundError:
                return False
        self.wait_until(is_there, f'"{text}" in {path}')


def main():
    """Runs the tests; a single one is named by its method alone."""
    names = [name for name in sys.argv[1:]]
    module = sys.modules["__main__"]
    classes = [value for value in vars(module).values()
               if isinstance(value, type) and issubclass(value, TestCase) and value is not TestCase]
    suite = unittest.TestSuite(cls(method) for cls in classes for method in unittest.TestLoader().getTestCaseNames(cls)
                               if not names or method in names)
    if suite.countTestCases() == 0:
        sys.exit("there is no such test")
    result = unittest.TextTestRunner(verbosity=2).run(suite)
    if result.wasSuccessful() and result.skipped:
        sys.exit(77)  # which says so to ctest
    sys.exit(0 if result.wasSuccessful() else 1)
