#!/bin/sh
# The checker itself: two archives that use each other's symbols, and two targets that
# link each other, are each reported as a circle; a one-way pair is not.
set -eu
checker=$1
nm=${2:-nm}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"
printf 'int b(void);\nint a(void) { return b() + 1; }\n' >a.c
printf 'int a(void);\nint b(void) { return 2; }\nint c(void) { return a(); }\n' >b.c
printf 'int b(void);\nint d(void) { return b(); }\n' >d.c
for x in a b d; do cc -c $x.c -o $x.o && ar rcs lib$x.a $x.o; done

printf 'A\t%s/liba.a\tB\nB\t%s/libb.a\t\n' "$dir" "$dir" >symbols.txt
if python3 "$checker" symbols.txt "$nm" >out.txt; then echo "a circle by symbols was not found"; cat out.txt; exit 1; fi
grep -q 'circle between targets (symbols): A B' out.txt || { cat out.txt; exit 1; }
grep -q 'B -> A (a)' out.txt || { cat out.txt; exit 1; }

printf 'D\t%s/libd.a\tE\nE\t%s/libd.a\t$<LINK_LIBRARY:WHOLE_ARCHIVE,D>\n' "$dir" "$dir" >declared.txt
if python3 "$checker" declared.txt "$nm" >out.txt; then echo "a declared circle was not found"; cat out.txt; exit 1; fi
grep -q 'circle between targets (declared): D E' out.txt || { cat out.txt; exit 1; }

printf 'D\t%s/libd.a\tB\nB\t%s/libb.a\t\n' "$dir" "$dir" >oneway.txt
python3 "$checker" oneway.txt "$nm" | grep -q 'no circle between 2 targets'
echo "the checker finds both kinds of circle and passes a one-way pair"
