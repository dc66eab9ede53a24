# Draws the pictures of docs/performance.md: gnuplot -c bench.gnuplot FOLDER, which has figures.txt with
# lines "DESCRIPTORS NAME MICROSECONDS".
rest(name) = name[strstrt(name, "/") + 1:*]
size(name) = real(rest(name)[1:strstrt(rest(name)."/", "/") - 1]) # of NAME/SIZE or NAME/SIZE/...

set terminal svg size 640,340 font "sans-serif,13" background "white"
set border 3
set grid linecolor rgb "#dddddd"
set tics nomirror
set rmargin 24 # for the names of the lines
set bmargin 3.5
set logscale x
set xtics ("1" 1, "10" 10, "100" 100, "1,000" 1000, "10,000" 10000, "100,000" 100000)
set linetype 1 lc rgb "#1f77b4" lw 2 pt 7 ps 0.5
set linetype 2 lc rgb "#d62728" lw 2 pt 7 ps 0.5
set linetype 3 lc rgb "#2ca02c" lw 2 pt 7 ps 0.5
set linetype 4 lc rgb "#9467bd" lw 2 pt 7 ps 0.5
unset key

set output ARG1."/in-use.svg"
set title "Is a file in use?"
set xlabel "open descriptors on the machine (logarithmic)"
set ylabel "CPU time, µs (logarithmic)"
set logscale y
set xrange [1000:100000]
set yrange [1:1000000]
set ytics ("1" 1, "10" 10, "100" 100, "1,000" 1000, "10,000" 10000, "100,000" 100000, "1,000,000" 1000000)
name(i) = word("free floor walk fuser", i)
text(i) = i == 1 ? "service" : i == 2 ? "bare system calls" : i == 3 ? "service, walk alone" : "fuser"
one(i) = i <= 2 ? 100 : 1 # a hundred answers are measured at once
rise(i) = i == 3 ? -0.5 : 0.2
in_use(i) = "<grep '^[1-9].* in_use_".name(i)." ' ".ARG1."/figures.txt"
plot for [i = 1:4] in_use(i) using 1:($3 / one(i)) with linespoints linetype i, \
  for [i = 1:4] in_use(i) using 1:($3 / one(i)):(text(i)) every ::3 with labels left offset 1,rise(i)

set output ARG1."/delivery.svg"
set title "Delivery of one file that replaces another"
set xlabel "metadata entries of each item (logarithmic)"
set xrange [1:1000]
set yrange [50:1000]
set ytics ("50" 50, "100" 100, "200" 200, "500" 500, "1,000" 1000)
name(i) = word("service floor floor_and_lines", i)
text(i) = i == 1 ? "service" : i == 2 ? "bare system calls" : "bare system calls,\nlines written"
delivery(i) = "<grep '^0 delivery_".name(i)."/' ".ARG1."/figures.txt"
plot for [i = 1:3] delivery(i) using (size(strcol(2))):3 with linespoints linetype i, \
  for [i = 1:3] delivery(i) using (size(strcol(2))):3:(text(i)) every ::3 with labels left offset 1,0

# The ratio of each size: both measurements side by side.
ratio(sizes) = "<bash -c 'paste -d \" \" <(grep \" pass_service/".sizes." \" ".ARG1."/figures.txt)". \
  " <(grep \" pass_floor/".sizes." \" ".ARG1."/figures.txt)'"
unset logscale y
set yrange [0.95:1.2]
set ytics 0.05
set format y "%.2f"
set ylabel "CPU time, ratio to bare system calls"

set output ARG1."/pass-entries.svg"
set title "Pass over watch folders with three files each, none of which matches"
set xlabel "watch entries (logarithmic)"
set xrange [9.99:10000]
set arrow from graph 0, first 1.15 to graph 1, first 1.15 nohead dashtype 2
set label "bound" at graph 1.02, first 1.15
plot ratio(".*/3") using (size(strcol(2))):($3 / $6) with linespoints linetype 1, \
  "" using (size(strcol(2))):($3 / $6):("service") every ::3 with labels left offset 1,0

unset arrow
unset label
set output ARG1."/pass-files.svg"
set title "Pass over one watch folder with files that do not match"
set xlabel "files in the folder (logarithmic)"
set xrange [9.99:100000]
plot ratio("1/.*") using (size(rest(strcol(2)))):($3 / $6) with linespoints linetype 1, \
  "" using (size(rest(strcol(2)))):($3 / $6):("service") every ::4 with labels left offset 1,0
