#include <sstream>
#include <string>

#include "Board.h"

namespace {

class Completion : public SimulatorTest {
 protected:
  /// Whether the shell is there.
  static bool Has(const char* shell) {
    return !Shell(std::string("command -v ") + shell).empty();
  }
  /// An assignment before a command, which then finds the script as "$COMPLETION".
  static std::string Script(const char* name) {
    return "COMPLETION=" + Quoted(std::string(BOARDKIT_COMPLETIONS) + '/' + name) + ' ';
  }
  /// Another one, with which the command finds boardsim without its path.
  static std::string WithSimulator() {
    return "PATH=" + Quoted(std::string(kSimulator).substr(0, std::string(kSimulator).rfind('/'))) + ":$PATH ";
  }
  /// What bash offers for the last of some words, a line each. Bash itself cuts them at "=".
  static std::string InBash(const std::string& words) {
    return Shell(Script("boardsim.bash") +
                 "bash -c 'source \"$COMPLETION\"; compopt() { :; }; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); "
                 "_boardsim \"$1\"; printf \"%s\\n\" \"${COMPREPLY[@]}\"' bash " +
                 Quoted(kSimulator) + ' ' + words);
  }
  std::string InFish(const std::string& words) {
    // Fish makes its folders wherever these variables point, as root even in "/".
    const std::string home = Quoted(Folder());
    return Shell(Script("boardsim.fish") + WithSimulator() + "HOME=" + home + " XDG_DATA_HOME=" + home +
                 " XDG_CONFIG_HOME=" + home +
                 " fish --no-config -c "
                 "'source $COMPLETION; complete -C \"boardsim " +
                 words + "\"' 2>&1 | cut -f 1");
  }
  /// What the key for completion shows below a line. Zsh completes on a terminal only.
  std::string ShownInZsh(const std::string& line) {
    Shell("cat >" + Path(".zshrc") + " <<'END'\nPS1=; fpath=(" + Quoted(BOARDKIT_COMPLETIONS) +
          " $fpath); autoload -Uz compinit; compinit -u -d $ZDOTDIR/dump\n"
          "show() { print -rn -- \"$BUFFER\" >$ZDOTDIR/line; exit }; zle -N show; bindkey '^X' show\nEND");
    return Shell("rm -f " + Path("line") + "; printf '" + line + "\\t\\030' | ZDOTDIR=" + Folder() + " TERM=dumb " +
                 WithSimulator() + "timeout 30 socat -t 30 - EXEC:'zsh -i',pty,setsid,ctty,stderr 2>/dev/null");
  }
  /// What it makes of the line itself, which another key shows.
  std::string InZsh(const std::string& line) {
    ShownInZsh(line);
    return Contents(Path("line"));
  }
  /// The options that the help has, a line each.
  static std::string HelpsOptions() {
    return Shell(Quoted(kSimulator) + " --help | grep -E '^ +-' | grep -o -E -e '--[a-z-]+'");
  }
  static std::string Sorted(const std::string& lines) {
    return Shell("printf '%s' " + Quoted(lines) + " | sort");
  }
  static bool Offers(const std::string& offered, const std::string& word) {
    return ('\n' + offered).find('\n' + word + '\n') != std::string::npos;
  }
};

#define EXPECT_OFFERS(offered, word)                                                            \
  do {                                                                                          \
    const std::string all = (offered);                                                          \
    EXPECT_TRUE(Offers(all, word)) << #offered << " has no \"" << (word) << "\", but\n" << all; \
  } while (false)

TEST_F(Completion, BashKnowsEveryOptionAndTheValuesOfThese) {
  EXPECT_EQ(Sorted(InBash("--")), Sorted(HelpsOptions() + "--\n"));
  EXPECT_EQ(InBash("--no-n"), "--no-namespaces\n");
  EXPECT_EQ(InBash("--net ''"), "private\nnone\nhost\n");
  EXPECT_EQ(InBash("--net private --mem ''"), "none\n");
  EXPECT_EQ(InBash("--tty /dev/t"), "/dev/ttyS1=\n");
  for (const char* farEnd : {"echo", "plug", "none", "pty", "tcp:", "tcp-listen:", "unix:", "unix-listen:", "exec:"}) {
    EXPECT_OFFERS(InBash("--tty /dev/ttyS1 ="), farEnd);
  }
  EXPECT_EQ(InBash("--tty /dev/ttyS1 = un"), "unix:\nunix-listen:\n");
  EXPECT_EQ(InBash("--log " + Path("lo")), "\n");
  Shell("touch " + Path("log"));
  EXPECT_EQ(InBash("--log " + Path("lo")), Path("log") + '\n');
}

TEST_F(Completion, BashCompletesTheCommandBehindTheOptionsAndItsArguments) {
  EXPECT_OFFERS(InBash("--net none tru"), "true");
  EXPECT_OFFERS(InBash("--tty /dev/ttyS1 = none -- tru"), "true");
  EXPECT_OFFERS(InBash("--check tru"), "true");
  Shell("touch " + Path("argument"));
  EXPECT_EQ(InBash("--net none -- ls " + Path("argum")), Path("argument") + '\n');
  EXPECT_EQ(InBash("true --ne"), "\n") << "options behind the command are its own";
}

TEST_F(Completion, FishKnowsEveryOptionAndTheValuesOfThese) {
  if (!Has("fish")) {
    GTEST_SKIP() << "There is no fish here.";
  }
  EXPECT_EQ(Sorted(InFish("--")), Sorted(HelpsOptions()));
  EXPECT_EQ(InFish("--no-n"), "--no-namespaces\n");
  EXPECT_EQ(InFish("--net p"), "private\n");
  EXPECT_OFFERS(InFish("--tty /dev/ttyS1=u"), "/dev/ttyS1=unix:");
  EXPECT_OFFERS(InFish("--net none -- tru"), "true");
}

TEST_F(Completion, ZshKnowsEveryOptionAndTheValuesOfThese) {
  if (!Has("zsh") || !Has("socat")) {
    GTEST_SKIP() << "There is no zsh, or no socat, here.";
  }
  const std::string shown = ShownInZsh("boardsim --");
  std::istringstream options(HelpsOptions());
  for (std::string option; std::getline(options, option);) {
    EXPECT_NE(shown.find('\n' + option + ' '), std::string::npos) << option << " is not among\n" << shown;
  }
  EXPECT_EQ(InZsh("boardsim --no-n"), "boardsim --no-namespaces ");
  EXPECT_EQ(InZsh("boardsim --net pr"), "boardsim --net private ");
  EXPECT_EQ(InZsh("boardsim --tty /dev/ttyS1=exe"), "boardsim --tty /dev/ttyS1=exec:");
  EXPECT_EQ(InZsh("boardsim --net none truncat"), "boardsim --net none truncate ");
}

}  // namespace
