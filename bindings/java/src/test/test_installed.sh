#!/bin/bash
# The binding from an installed copy: the jar from share/java, the JNI library from the library
# folder finding libzrtproxy beside it by itself (no LD_LIBRARY_PATH), one case of the test.
#   test_installed.sh BUILD_DIR JAVA TEST_JAR
set -euo pipefail
build=$1
java=$2
test_jar=$3
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
jni=$(find "$prefix" -name libzrtproxy_jni.so)
jar=$prefix/share/java/zrtproxy.jar
[ -n "$jni" ] || { echo "FAIL: no libzrtproxy_jni.so installed" >&2; exit 1; }
[ -f "$jar" ] || { echo "FAIL: no share/java/zrtproxy.jar installed" >&2; exit 1; }
[ -e "$(dirname "$jni")/libzrtproxy.so" ] || { echo "FAIL: the JNI library is not beside libzrtproxy" >&2; exit 1; }
unset LD_LIBRARY_PATH
"$java" -ea -Xcheck:jni -Djava.library.path="$(dirname "$jni")" -cp "$jar:$test_jar" zrt.proxy.ZrtProxyTest options_and_errors
