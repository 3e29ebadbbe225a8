// What everyday programs do in the mount: copying with all attributes, unpacking, version control, editing.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "tests/mount/FrontMount.h"

namespace kestrune::mounttest {
namespace {

class FrontProgramsTest : public FrontTest {
 protected:
  // Runs a script of the shell with $M the mount and $L a local folder; all that it says is the failure's text.
  void run(const std::string& script) {
    const std::string log = local_.path() / "log";
    const std::string line = "M='" + at("").string() + "' L='" + local_.path().string() +
                             "' HOME=$L GIT_CONFIG_NOSYSTEM=1 bash -euxo pipefail -c '" + script +
                             "' >'" + log + "' 2>&1 </dev/null";
    EXPECT_EQ(std::system(line.c_str()), 0) << support::contentsOf(log);
  }
  static bool isHere(const std::string& program) {
    return std::system(("command -v " + program + " >/dev/null").c_str()) == 0;
  }

  // Files with dates, one of them a program, one private.
  void makeSample() {
    run(R"sh(mkdir -p $L/tree/sub; for i in $(seq 40); do echo "file $i" >$L/tree/sub/$i; done
           echo "#!/bin/sh" >$L/tree/run; chmod 755 $L/tree/run
           echo secret >$L/tree/key; chmod 600 $L/tree/key
           head -c 3000000 /dev/urandom >$L/tree/large
           touch -d "2001-02-03 04:05:06.123456789" $L/tree/run $L/tree/sub/1)sh");
  }
  void expectSample(const std::string& place) {
    run("diff -r $L/tree " + place + "; test -x " + place + "/run; test ! -x " + place +
        "/key\n test \"$(stat -c %y " + place + "/run)\" = \"$(stat -c %y $L/tree/run)\"");
  }

 private:
  support::TemporaryDirectory local_;
};

TEST_F(FrontProgramsTest, CopyingWithAllAttributes) {
  makeSample();
  run("cp -pR $L/tree $M/copy; cp -a $M/copy $M/again; mv $M/again $M/moved");
  expectSample("$M/copy");
  expectSample("$M/moved");
  run("install -m 600 $L/tree/key $M/installed; install -D -m 755 $L/tree/run $M/a/b/run");
  run("rm -r $M/copy $M/moved");
}

TEST_F(FrontProgramsTest, SynchronisingTrees) {
  if (!isHere("rsync")) GTEST_SKIP() << "no rsync here";
  makeSample();
  run("rsync -a $L/tree/ $M/tree/; echo more >>$L/tree/sub/7; rm $L/tree/sub/8");
  run("rsync -a --delete --itemize-changes $L/tree/ $M/tree/ | tee $L/changes");
  expectSample("$M/tree");
  // Nothing but the file and the folders is different, so the dates were kept.
  run(R"sh(test $(grep -c "^>f" $L/changes) = 1)sh");
  run("rsync -a --inplace --append-verify $L/tree/ $M/tree/");
}

TEST_F(FrontProgramsTest, UnpackingArchives) {
  makeSample();
  run("tar -C $L --format=posix -cf $L/tree.tar tree; mkdir $M/out; tar -C $M/out -xf $L/tree.tar");
  expectSample("$M/out/tree");
  run("tar -C $M/out -cf $M/packed.tar tree; tar -df $M/packed.tar -C $M/out");
}

TEST_F(FrontProgramsTest, VersionControl) {
  if (!isHere("git")) GTEST_SKIP() << "no git here";
  makeSample();
  run(R"sh(git config --global user.email a@example.org; git config --global user.name A
         git init -q $M/repo; cp -p $L/tree/sub/* $L/tree/run $M/repo; cd $M/repo
         test "$(git config core.filemode)" = true
         git add .; git commit -q -m one; echo changed >>1; git commit -q -am two
         git checkout -q -b other HEAD~1; git mv 2 two; git commit -q -m three
         git merge -q -m merged master || git merge -q -m merged main; git gc -q; git fsck
         test -z "$(git status --porcelain)"
         git clone -q $M/repo $M/clone; git clone -q --bare $M/repo $M/bare.git
         cd $M/clone; git log --oneline | grep three; git worktree add -q ../work HEAD~1)sh");
}

TEST_F(FrontProgramsTest, Editing) {
  put(at("text"), "one\ntwo\n");
  run("sed -i s/one/ONE/ $M/text; grep -q ONE $M/text");
  run("perl -pi -e s/two/TWO/ $M/text; grep -q TWO $M/text");
  if (!isHere("vim")) GTEST_SKIP() << "no vim here";
  for (const std::string way : {"yes", "no", "auto"}) {
    run("vim -u NONE -N -es -c \"set backup writebackup backupskip= backupcopy=" + way +
        "\" -c \"normal Goline " + way + "\" -c wq $M/text");
    run("grep -q \"line " + way + "\" $M/text; test ! -e $M/.text.swp; test -e $M/text~");
  }
}

TEST_F(FrontProgramsTest, TemporaryFilesAndLocks) {
  run(R"sh(file=$(mktemp -p $M); chmod 600 $file; echo x >$file; mv -n $file $M/a; test -s $M/a
         folder=$(mktemp -d -p $M); touch $folder/x; rm -r $folder
         exec 9>$M/lock; flock -n 9; ! flock -n $M/lock true
         dd if=/dev/zero of=$M/zeros bs=1M count=8 conv=fsync status=none
         dd if=/dev/urandom of=$M/zeros bs=4k seek=3 count=1 conv=notrunc status=none
         truncate -s 5M $M/zeros; test $(stat -c %s $M/zeros) = 5242880; sync $M/zeros)sh");
}

}  // namespace
}  // namespace kestrune::mounttest
