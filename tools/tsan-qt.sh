#!/bin/bash
# tsan-qt.sh [PREFIX]: makes a Qt 6.4.2 (Core, Concurrent, Test) with ThreadSanitizer, and QCoro 0.8 beside it, in PREFIX
# (default: /opt/qt-tsan), which the preset tsan takes. Debian 12, as root; 10 to 30 minutes once. What is there already
# is kept. A Qt without the sanitizer would be reported wherever it synchronises by itself.
#
#   TSAN_QT_SRC   where sources are unpacked and built (default: /opt/src)
#   TSAN_QT_JOBS  compile jobs (default: 2)
#
# Of QCoro the headers are instrumented, which hold the coroutines; its compiled awaiters (timers, processes) are Debian's.
set -euo pipefail

tools=$(cd "$(dirname "$0")" && pwd)
PREFIX=$(realpath -m "${1:-/opt/qt-tsan}")
SRC=$(realpath -m "${TSAN_QT_SRC:-/opt/src}")
JOBS=${TSAN_QT_JOBS:-2}
QT_DIR=$SRC/qt6-base-tsan
BUILD=$SRC/build-tsan$(echo "$PREFIX" | tr / -)
RECIPE=1 # raise it when the edits or the configuration of Qt below change
export DEBIAN_FRONTEND=noninteractive LC_ALL=C

say() { printf '== %s\n' "$*"; }
die() { printf 'tsan-qt.sh: %s\n' "$*" >&2; exit 1; }

mkdir -p "$SRC" "$PREFIX"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# ---------------------------------------------------------------- packages
want=()
for p in g++ cmake ninja-build dpkg-dev perl util-linux; do
    dpkg -s "$p" >/dev/null 2>&1 || want+=("$p")
done
if [ ${#want[@]} -gt 0 ]; then
    say "installing ${want[*]}"
    apt-get update -q
    apt-get install -y -q --no-install-recommends "${want[@]}"
fi

# ---------------------------------------------------------------- does TSan run here?
# GCC 12's TSan wants its own address layout. Kernels with vm.mmap_rnd_bits above 28 may
# break it ("FATAL: ThreadSanitizer: unexpected memory mapping"): then everything
# instrumented, moc and the other build tools of this Qt too, must run under setarch -R.
cat > "$work/probe.cpp" <<'E'
#include <thread>
int main() { int x = 0; std::thread t([&] { ++x; }); t.join(); return x - 1; }
E
g++ -fsanitize=thread -O1 "$work/probe.cpp" -o "$work/probe" -pthread
RUN=
for _ in $(seq 30); do
    "$work/probe" >"$work/probe.log" 2>&1 || { RUN="setarch $(uname -m) -R"; break; }
done
if [ -n "$RUN" ]; then
    for _ in $(seq 30); do
        $RUN "$work/probe" >"$work/probe.log" 2>&1 ||
            { cat "$work/probe.log" >&2; die "TSan does not run on this kernel, with setarch -R neither"; }
    done
    say "TSan needs '$RUN' here (address space randomisation): used below"
fi

# ---------------------------------------------------------------- source of Qt
# deb-src twins of the apt entries this machine already has, in a directory of their own:
# the machine's own apt configuration stays as it is.
apt_src() {
    if [ ! -d "$work/apt" ]; then
        mkdir -p "$work/apt/parts" "$work/apt/lists/partial"
        for f in /etc/apt/sources.list.d/*.sources; do
            [ -f "$f" ] && sed -E 's/^Types:.*/Types: deb-src/' "$f" > "$work/apt/parts/${f##*/}"
        done
        for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
            [ -f "$f" ] && sed -nE 's/^deb(-src)?[[:space:]]/deb-src /p' "$f" | sort -u > "$work/apt/parts/${f##*/}.list"
        done
        find "$work/apt/parts" -empty -type f -delete
        apt_opt=(-q -o Dir::Etc::sourcelist=/dev/null -o Dir::Etc::sourceparts="$work/apt/parts"
                 -o Dir::State::lists="$work/apt/lists" -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache=
                 -o APT::Sandbox::User=root)
        apt-get "${apt_opt[@]}" update || true
    fi
    apt-get "${apt_opt[@]}" "$@"
}

# edit FILE COUNT PERL: runs the substitution on the whole file; it must hit COUNT times.
edit() {
    local n
    n=$(perl -0777 -i -pe "BEGIN { \$n = 0 } \$n += $3; END { print STDERR \$n }" "$QT_NEW/src/corelib/$1" 2>&1)
    [ "$n" = "$2" ] || die "edit of $1 hit $n places, not $2: another Qt than 6.4.2+dfsg?"
}

if [ "$(cat "$QT_DIR/.tsan-recipe" 2>/dev/null)" != "$RECIPE" ] && [ "$(cat "$PREFIX/share/tsan-qt/recipe" 2>/dev/null)" != "$RECIPE" ]; then
    say "source of Qt"
    rm -rf "$QT_DIR" "$SRC/qt6-base-unpack"
    mkdir -p "$SRC/qt6-base-unpack"
    cd "$SRC/qt6-base-unpack"
    apt_src source qt6-base
    QT_NEW=$(echo "$SRC"/qt6-base-unpack/qt6-base-*/)
    QT_NEW=${QT_NEW%/}
    grep -q 'QT_REPO_MODULE_VERSION "6.4.2"' "$QT_NEW/.cmake.conf" || die "expected Qt 6.4.2 in $QT_NEW"

    # The edits. None changes what the code does on x86-64 (an acquire load and a release
    # store are plain movs, and the read-modify-writes are locked either way), except where
    # said.
    #
    # 1. connect() publishes a connection with relaxed stores, an emission in another thread
    #    reads it with relaxed loads and relies on data dependency, which neither C++ nor TSan
    #    credits: every "connect() while or before another thread emits" would be reported,
    #    in the slot's captures too. connect() is documented as thread-safe, so say it.
    for f in kernel/qobject.cpp:77 kernel/qobject_p_p.h:7; do
        edit "${f%:*}" "${f#*:}" 's/\b(connections|signalVector|first|nextConnectionList|argumentTypes)\.(?:loadRelaxed\(\)|storeRelaxed\()/my $m = $&; $m =~ s,loadRelaxed,loadAcquire,; $m =~ s,storeRelaxed,storeRelease,; $m/ge'
    done
    #    ... and number the connection before publishing it, not after.
    edit kernel/qobject.cpp 1 's/(    ConnectionList &connectionList = cd->connectionsForSignal\(signal\);\n)(.*?)(    c->id = \+\+cd->currentConnectionId;\n)/$1$3$2/s'
    # 2. ~QObject() of a receiver clears a bit that an emission in another thread may be reading
    #    (it looks again under the lock afterwards and drops the event). Benign: hide the write.
    edit kernel/qobject.cpp 1 's/node->isSlotObject = false;/[](QObjectPrivate::Connection *n) __attribute__((noinline, no_sanitize_thread)) { n->isSlotObject = false; }(node);/'
    # 3. moveToThread(), quit(), exit() and wakeUp() reach the dispatcher of a thread that has
    #    just started; it is published with a release store but read with relaxed loads.
    for f in kernel/qobject.cpp:6 kernel/qeventloop.cpp:3 kernel/qabstracteventdispatcher.cpp:1 thread/qthread.cpp:1; do
        edit "${f%:*}" "${f#*:}" 's/\beventDispatcher\.loadRelaxed\(\)/eventDispatcher.loadAcquire()/g'
    done
    # 4. The state of a QFuture is read and written relaxed, also where "finished" stands for
    #    "the results are there" (continuations, isFinished()).
    edit thread/qfutureinterface.cpp 21 's/\b(state|a)\.loadRelaxed\(\)/$1.loadAcquire()/g'
    edit thread/qfutureinterface.cpp 1 's/\bstate\.storeRelaxed\(/state.storeRelease(/g'
    edit thread/qfutureinterface.cpp 3 's/\ba\.(fetchAndOr|fetchAndAnd|testAndSet)Relaxed\(/a.$1Ordered(/g'
    #    waitForResult() looks for an exception without the lock it is written under. This one
    #    is a (tiny) bug of Qt 6.4.2, and here it is fixed: look under the lock.
    edit thread/qfutureinterface.cpp 1 's/(void QFutureInterfaceBase::waitForResult\(int resultIndex\)\n\{\n)(    if \(d->hasException\)\n        d->data\.m_exceptionStore\.rethrowException\(\);\n\n)(    QMutexLocker lock\(&d->m_mutex\);\n)/$1$3$2/'
    # 5. Qt tells TSan of QMutex being locked and unlocked, but not destroyed: TSan takes a new
    #    mutex at the address of an old one (on the stack) for the same and reports lock orders
    #    that never were.
    edit thread/qtsan_impl.h 1 's/inline void mutexPostUnlock\(void \*addr, unsigned flags\)\n/inline void mutexDestroy(void *addr)\n{\n    ::__tsan_mutex_destroy(addr, 0u);\n}\n\n$&/'
    edit thread/qtsan_impl.h 1 's/inline void mutexPostUnlock\(void \*, unsigned\) \{\}\n/$&inline void mutexDestroy(void *) {}\n/'
    edit thread/qmutex.h 1 's/(    ~QMutex\(\)\n    \{\n)/$1        QtTsan::mutexDestroy(this);\n/'
    edit thread/qmutex.cpp 1 's/(QRecursiveMutex::~QRecursiveMutex\(\)\n\{\n)/$1    QtTsan::mutexDestroy(this);\n/'

    echo "$RECIPE" > "$QT_NEW/.tsan-recipe"
    mv "$QT_NEW" "$QT_DIR"
    cd "$SRC"
    rm -rf "$SRC/qt6-base-unpack"
fi

# ---------------------------------------------------------------- Qt
# The libraries that Debian takes from the system (zlib, pcre2, double-conversion) are built in
# here, so that they are instrumented too. glib off: the event loop of glib is not
# instrumented; Qt's own dispatcher is (to run without TSan on the same one: QT_NO_GLIB=1).
# forkfd_pidfd off: QProcess would start its child with clone(CLONE_VM), after which GCC 12's
# TSan takes the parent for the child and stops watching it; now it is a plain fork().
if [ "$(cat "$PREFIX/share/tsan-qt/recipe" 2>/dev/null)" != "$RECIPE" ]; then
    say "Qt: configure, build and install (about 10 minutes on two idle cores; log: $BUILD/log)"
    started=$SECONDS
    mkdir -p "$BUILD"
    cd "$BUILD"
    : > log
    {
        $RUN cmake -G Ninja "$QT_DIR" \
            -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ -DCMAKE_INSTALL_PREFIX="$PREFIX" \
            -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQT_USE_DEFAULT_CMAKE_OPTIMIZATION_FLAGS=ON \
            -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g -DNDEBUG -fno-omit-frame-pointer" \
            -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g -DNDEBUG -fno-omit-frame-pointer" \
            -DFEATURE_sanitize_thread=ON -DBUILD_SHARED_LIBS=ON -DFEATURE_ltcg=OFF \
            -DQT_BUILD_EXAMPLES=OFF -DQT_BUILD_TESTS=OFF -DQT_BUILD_BENCHMARKS=OFF -DQT_BUILD_MANUAL_TESTS=OFF \
            -DFEATURE_testlib=ON -DFEATURE_concurrent=ON \
            -DFEATURE_gui=OFF -DFEATURE_widgets=OFF -DFEATURE_network=OFF -DFEATURE_sql=OFF \
            -DFEATURE_dbus=OFF -DFEATURE_xml=OFF -DFEATURE_printsupport=OFF \
            -DFEATURE_glib=OFF -DFEATURE_icu=OFF -DFEATURE_zstd=OFF -DFEATURE_journald=OFF \
            -DFEATURE_system_zlib=OFF -DFEATURE_system_pcre2=OFF -DFEATURE_system_doubleconversion=OFF \
            -DFEATURE_system_libb2=OFF -DFEATURE_forkfd_pidfd=OFF &&
        $RUN ninja -j"$JOBS" &&
        $RUN ninja install
    } >> log 2>&1 || { tail -40 log >&2; die "Qt did not build, see $BUILD/log"; }
    mkdir -p "$PREFIX/share/tsan-qt"
    echo "$RECIPE" > "$PREFIX/share/tsan-qt/recipe"
    say "Qt: done in $((SECONDS - started)) s"
    cd "$SRC"
    rm -rf "$BUILD"
else
    say "Qt: there already"
fi

# ---------------------------------------------------------------- QCoro
# Debian's packages, unpacked into the prefix (not installed): see the top of this file.
arch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
if [ ! -e "$PREFIX/lib/$arch/cmake/QCoro6/QCoro6Config.cmake" ]; then
    say "QCoro"
    mkdir -p "$work/qcoro/root"
    cd "$work/qcoro"
    apt-get -q -o APT::Sandbox::User=root download qcoro-qt6-dev libqcoro6core0 ||
        { apt-get update -q; apt-get -q -o APT::Sandbox::User=root download qcoro-qt6-dev libqcoro6core0; }
    for d in *.deb; do dpkg-deb -x "$d" root; done
    mkdir -p "$PREFIX/include" "$PREFIX/lib/$arch/cmake"
    cp -a root/usr/include/qcoro6 "$PREFIX/include/"
    cp -a root/usr/lib/"$arch"/libQCoro6Core.so* "$PREFIX/lib/$arch/"
    cp -a root/usr/lib/"$arch"/cmake/QCoro6Core root/usr/lib/"$arch"/cmake/QCoro6Coro "$PREFIX/lib/$arch/cmake/"
    cp -a root/usr/lib/"$arch"/cmake/QCoro6 "$PREFIX/lib/$arch/cmake/"
    cd "$SRC"
else
    say "QCoro: there already"
fi

# ---------------------------------------------------------------- exceptions
g++ -std=c++17 -O2 -fPIC -fno-exceptions -c "$tools/tsan-exceptions.cpp" -o "$PREFIX/lib/tsan-exceptions.o"

# ---------------------------------------------------------------- proof
# A program that counts on two threads of that Qt: reported without a lock, and not with one.
say "proof"
cat > "$work/CMakeLists.txt" <<'E'
cmake_minimum_required(VERSION 3.22)
project(proof LANGUAGES CXX)
find_package(Qt6 REQUIRED COMPONENTS Core)
add_executable(locked proof.cpp)
add_executable(racing proof.cpp)
target_compile_definitions(racing PRIVATE RACING)
target_link_libraries(locked PRIVATE Qt6::Core)
target_link_libraries(racing PRIVATE Qt6::Core)
E
cat > "$work/proof.cpp" <<'E'
#include <QMutex>
#include <QThread>
int main()
{
    QMutex mutex;
    int count = 0;
    const auto add = [&] {
#ifndef RACING
        const QMutexLocker locker(&mutex);
#endif
        ++count;
    };
    QThread *thread = QThread::create(add);
    thread->start();
    add();
    thread->wait();
    delete thread;
    return 0;
}
E
$RUN cmake -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$PREFIX" -DCMAKE_CXX_FLAGS="-fsanitize=thread -g -Wno-tsan" \
    > "$work/log"
$RUN cmake --build "$work/build" >> "$work/log" || { cat "$work/log" >&2; die "the proof did not build"; }
[[ $(ldd "$work/build/locked") == *"$PREFIX/lib/libQt6Core.so.6"* ]] || die "the proof uses another Qt"
$RUN "$work/build/locked" || die "a program without a race was reported"
# Now and then a busy machine runs one thread after the other.
isReported=
for _ in $(seq 20); do
    $RUN "$work/build/racing" > "$work/log" 2>&1 || { isReported=1; break; }
done
[ -n "$isReported" ] || die "a race was not reported"

say "in $PREFIX: now ${RUN:+$RUN }cmake --preset tsan && cmake --build --preset tsan && ${RUN:+$RUN }ctest --preset tsan"
