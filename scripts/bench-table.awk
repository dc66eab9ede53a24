# Reads lines "DESCRIPTORS NAME MICROSECONDS" and prints a table of ratios. Status 1 when a figure is missing
# or a ratio exceeds its bound; such a row is marked.
function with_commas(x,   text) {
  for (text = sprintf("%.0f", x); match(text, /[0-9][0-9][0-9][0-9](,|$)/);)
    text = substr(text, 1, RSTART) "," substr(text, RSTART + 1)
  return text
}
function time(us) { return us < 1000 ? sprintf("%.1f", us) : with_commas(us) }
# Three digits of one part in many.
function ratio(x,   parts, digit) {
  if (x >= 0.1) return sprintf("%.2f", x)
  parts = 1 / x
  for (digit = 1; parts / digit >= 1000; digit *= 10);
  return "1/" with_commas(int(parts / digit + 0.5) * digit)
}
function value(load, name) {
  # A hundred answers are measured at once.
  return us[load, name] / (name ~ /^in_use_(free|held|floor)/ ? 100 : 1)
}
function row(text, load, name, other_load, other, bound,   a, b, is_exceeded) {
  a = value(load, name); b = value(other_load, other)
  if (a * b == 0) { print "No figure for: " text; status = 1; return }
  is_exceeded = bound != "" && a / b > bound
  if (is_exceeded) status = 1
  printf("| %s | %s | %s | %s | %s |\n", text, time(a), time(b), ratio(a / b),
    (bound == "" ? "" : ratio(bound)) (is_exceeded ? " **exceeded**" : ""))
}
{ us[$1, $2] = $3 }
END {
  print "| what | service, µs | other, µs | ratio | bound |"
  print "|---|---|---|---|---|"
  row("in use, free file : bare system calls", 0, "in_use_free", 0, "in_use_floor", 3)
  row("in use, free file, 20,000 descriptors : without load", 20000, "in_use_free", 0, "in_use_free", 1.3)
  row("in use, held file : free file, elapsed", 0, "in_use_held_wall", 0, "in_use_free_wall", 5)
  row("in use, held file, 20,000 descriptors : without load, elapsed", 20000, "in_use_held_wall", 0, "in_use_held_wall", 3)
  row("in use, free file, 20,000 descriptors : fuser -s", 20000, "in_use_free", 20000, "in_use_fuser", 0.001)
  for (n = 0; n <= 100000; n = n == 0 ? 1000 : n == 10000 ? 20000 : n == 20000 ? 100000 : n * 10)
    row("walk, " (n == 0 ? "no load" : with_commas(n) " descriptors") " : fuser -s", n, "in_use_walk", n, "in_use_fuser", 1)
  for (n = 10; n <= 10000; n *= 10)
    row("pass over " with_commas(n) " entries with 3 files : bare loop", 0, "pass_service/" n "/3", 0, "pass_floor/" n "/3", 1.15)
  for (n = 10; n <= 100000; n *= 10)
    row("pass over a folder with " with_commas(n) " files : bare loop", 0, "pass_service/1/" n, 0, "pass_floor/1/" n, 1.2)
  row("pass over 1,000 entries with a file that is held : with one that does not match, elapsed", 0, "pass_waiting_wall/1000", 0, "pass_idle_wall/1000", 3)
  for (n = 1; n <= 1000; n *= 10)
    row("delivery, metadata entries: " with_commas(n) " : bare calls", 0, "delivery_service/" n, 0, "delivery_floor/" n, n == 1 ? 2 : "")
  for (n = 1; n <= 1000; n *= 10)
    row("delivery, metadata entries: " with_commas(n) " : bare calls and lines", 0, "delivery_service/" n, 0, "delivery_floor_and_lines/" n, 2.5)
  row("delivery, 20,000 descriptors : without load", 20000, "delivery_service/1", 0, "delivery_service/1", 1.3)
  row("delivery : shell script, without load", 0, "delivery_service/1", 0, "shell")
  row("delivery : shell script, 20,000 descriptors", 20000, "delivery_service/1", 20000, "shell", 0.001)
  exit status
}
