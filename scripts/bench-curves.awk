# Reads lines "LABEL NAME MICROSECONDS" and draws one curve, named by the variable `curve`, as an SVG
# picture: size against microseconds, both axes logarithmic.
function log10(x) { return log(x) / log(10) }
function across(x) { return 70 + 400 * (log10(x) - x0) / (x1 - x0) }
function down(y) { return 260 - 220 * (log10(y) - y0) / (y1 - y0) }
function floor(x) { return x < int(x) ? int(x) - 1 : int(x) }
function add(name, size, time) {
  if (!(name in color)) { order[++names] = name; color[name] = colors[names] }
  points[name] = points[name] " " size "," time
  if (low == 0 || time < low) low = time
  if (time > high) high = time
  if (first == 0 || size < first) first = size
  if (size > last) last = size
}
BEGIN { split("#1f77b4 #d62728 #2ca02c #9467bd #8c564b", colors, " ") }
{
  split($2, part, "/")
  if (curve == "in-use" && $1 > 0 && $2 ~ /^in_use_/)
    add(substr($2, 8), $1, $2 ~ /free|held|floor/ ? $3 / 100 : $3)
  if (curve == "pass-entries" && $2 ~ /^pass_.*\/3$/) add(part[1], part[2], $3)
  if (curve == "pass-files" && $2 ~ /^pass_.*\/1\//) add(part[1], part[3], $3)
  if (curve == "delivery" && $1 == 0 && $2 ~ /^delivery_/) add(part[1], part[2], $3)
}
END {
  title["in-use"] = "In-use test: open descriptors on the machine"
  title["pass-entries"] = "Idle pass: watch entries with three files each"
  title["pass-files"] = "Idle pass: files in one watch folder"
  title["delivery"] = "Delivery: metadata entries of each item"
  x0 = floor(log10(first)); x1 = log10(last); y0 = floor(log10(low)); y1 = floor(log10(high)) + 1
  print "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"640\" height=\"310\" font-family=\"sans-serif\" font-size=\"12\">"
  print "<rect width=\"640\" height=\"310\" fill=\"white\"/>"
  printf "<text x=\"70\" y=\"24\" font-size=\"14\">%s, against µs of CPU time</text>\n", title[curve]
  for (y = y0; y <= y1; ++y) {
    printf "<path d=\"M70 %.1fH470\" stroke=\"#ddd\"/>", down(10 ^ y)
    printf "<text x=\"64\" y=\"%.1f\" text-anchor=\"end\">%s</text>\n", down(10 ^ y) + 4, 10 ^ y
  }
  for (x = x0; x <= x1 + 0.01; ++x) {
    printf "<path d=\"M%.1f 40V260\" stroke=\"#ddd\"/>", across(10 ^ x)
    printf "<text x=\"%.1f\" y=\"278\" text-anchor=\"middle\">%d</text>\n", across(10 ^ x), 10 ^ x
  }
  for (i = 1; i <= names; ++i) {
    name = order[i]
    count = split(points[name], list, " ")
    line = ""
    for (k = 1; k <= count; ++k) {
      split(list[k], point, ",")
      line = line sprintf("%.1f,%.1f ", across(point[1]), down(point[2]))
    }
    printf "<polyline points=\"%s\" fill=\"none\" stroke=\"%s\" stroke-width=\"2\"/>", line, color[name]
    printf "<text x=\"480\" y=\"%d\" fill=\"%s\">%s</text>\n", 40 + 18 * i, color[name], name
  }
  print "</svg>"
}
