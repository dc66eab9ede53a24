# Reads lines "LABEL NAME MICROSECONDS" and prints a table of ratios.
function value(label, name) {
  # The time of a number of answers or entries is divided by it.
  if (name ~ /^in_use_(free|held|floor)$/) return us[label, name] / 100
  return us[label, name]
}
function row(text, label, name, other_label, other, bound,   a, b) {
  a = value(label, name); b = value(other_label, other)
  if (b == 0 || a == 0) { printf "| %s | - | - | - | %s |\n", text, bound; return }
  printf "| %s | %.1f | %.1f | %.4g | %s |\n", text, a, b, a / b, bound
}
{ us[$1, $2] = $3 }
END {
  print "| what | service, µs | other, µs | ratio | bound |"
  print "|---|---|---|---|---|"
  row("in use, free file : bare lease", 0, "in_use_free", 0, "in_use_floor", "")
  row("in use, free file, 20,000 descriptors : without load", 20000, "in_use_free", 0, "in_use_free", "")
  row("in use, held file, 20,000 descriptors : without load", 20000, "in_use_held", 0, "in_use_held", "")
  row("in use, free file, 20,000 descriptors : fuser -s", 20000, "in_use_free", 20000, "in_use_fuser", "0.001")
  row("walk, no load : fuser -s", 0, "in_use_walk", 0, "in_use_fuser", "0.75")
  row("walk, 1,000 descriptors : fuser -s", 1000, "in_use_walk", 1000, "in_use_fuser", "0.75")
  row("walk, 10,000 descriptors : fuser -s", 10000, "in_use_walk", 10000, "in_use_fuser", "0.75")
  row("walk, 20,000 descriptors : fuser -s", 20000, "in_use_walk", 20000, "in_use_fuser", "0.75")
  row("walk, 100,000 descriptors : fuser -s", 100000, "in_use_walk", 100000, "in_use_fuser", "0.75")
  for (n = 10; n <= 10000; n *= 10)
    row("pass over " n " entries with 3 files : bare loop", 0, "pass_service/" n "/3", 0, "pass_floor/" n "/3", "1.15")
  for (n = 10; n <= 100000; n *= 10)
    row("pass over a folder with " n " files : bare loop", 0, "pass_service/1/" n, 0, "pass_floor/1/" n, "")
  for (n = 1; n <= 1000; n *= 10)
    row("delivery, " n " metadata entries : bare calls", 0, "delivery_service/" n, 0, "delivery_floor/" n, n == 1 ? "2" : "")
  for (n = 1; n <= 1000; n *= 10)
    row("delivery, " n " metadata entries : bare calls and lines", 0, "delivery_service/" n, 0, "delivery_floor_and_lines/" n, "")
  row("delivery, 20,000 descriptors : without load", 20000, "delivery_service/1", 0, "delivery_service/1", "1.3")
  row("delivery : shell script, without load", 0, "delivery_service/1", 0, "shell", "")
  row("delivery : shell script, 20,000 descriptors", 20000, "delivery_service/1", 20000, "shell", "0.001")
}
