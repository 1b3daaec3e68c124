#!/usr/bin/env bash
# Checks that the library returns named results: no function of src/ or
# rd_lib/ returns a bare negative number ("return -1;", "return ok ? 0 : -23;").
# Results take their names from src/common/rd_codes.h, sentinel values from a
# named constant. Prints every offending line as file:line and exits 1; exits
# 0 when none is left.
#
# src/platform/ is exempt: it is the operating-system seam below the code
# table (no module it may include holds the table), and like the system calls
# it wraps it returns -1 and leaves the reason in errno.
#
#   tests/code_table_check.sh [SOURCE_DIR]
set -euo pipefail
root=${1:-$(dirname "$0")/..}
cd "$root"

files=$(find src rd_lib -path src/platform -prune -o -type f \( -name '*.h' -o -name '*.cc' -o -name '*.c' \) -print |
        sort)
if [ -z "$files" ]; then
  echo "no sources found under $root: wrong folder?"
  exit 1
fi

# Comments, strings and character literals are blanked (newlines kept, so
# offsets still give the line); then every return statement is searched for a
# negative literal that it returns: right after "return", "?" or a ":" of a
# conditional.
# shellcheck disable=SC2086  # one file name per word
perl -0777 -ne '
  my $text = $_;
  my $blank = sub { my $s = shift; $s =~ s/[^\n]/ /g; $s };
  $text =~ s{(/\*.*?\*/|//[^\n]*|"(?:\\.|[^"\\\n])*"|\x27(?:\\.|[^\x27\\\n])*\x27)}{$blank->($1)}gse;
  while ($text =~ /\breturn\b([^;]*);/g) {
    my ($body, $start) = ($1, $-[1]);
    while ($body =~ /(?:^|\?|(?<!:):(?!:))\s*\(?\s*-\s*[0-9]/g) {
      my $line = 1 + (substr($text, 0, $start + $-[0]) =~ tr/\n//);
      print "$ARGV:$line: returns a bare negative number\n";
      $found++;
    }
  }
  END { exit($found ? 1 : 0) }
' $files && status=0 || status=$?
if [ "$status" -ne 0 ]; then
  echo "code_table_check: name these results (src/common/rd_codes.h, or a named constant for a sentinel)"
  exit 1
fi
echo "code_table_check: no function of src/ (but platform/) or rd_lib/ returns a bare negative number"
