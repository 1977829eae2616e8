# Draws the plots from the .dat files beside it in the current folder.
set encoding utf8
set grid linecolor rgb "#dddddd"
set border linecolor rgb "#555555"
set key textcolor rgb "#222222"

colour(i) = word("#1b6ca8 #74a9cf #d95f02 #7570b3", i)

# ---- Ratios: median, 95 % interval (thick), quartiles (thin) --------------------------------------
set terminal svg size 860,460 font "sans-serif,12" background rgb "white"
set output "ratios.svg"
set title "Time against bare libcurl: median, 95 % interval (thick), quartiles (thin)"
set xlabel "ours / bare"
set ytics nomirror
set xtics nomirror
set key outside right top
set arrow 1 from 1, graph 0 to 1, graph 1 nohead linecolor rgb "#222222"
set xrange [0.9:1.2]
set yrange [-7.6:0.6]
plot for [i = 0:3] sprintf("ratios-%d.dat", i) using 4:3:5:6 skip 1 with xerrorbars \
        pointtype 0 linewidth 1 linecolor rgb colour(i + 1) notitle, \
    for [i = 0:3] sprintf("ratios-%d.dat", i) using 4:3:7:8 with xerrorbars \
        pointtype 7 pointsize 0.5 linewidth 3 linecolor rgb colour(i + 1) title columnheader(3), \
    "ratios-0.dat" using (NaN):2:yticlabels(1) skip 1 notitle
unset arrow 1

# ---- Time and memory against reply size -----------------------------------------------------------
reset
set terminal svg size 860,380 font "sans-serif,12" background rgb "white"
set output "replies.svg"
set grid linecolor rgb "#dddddd"
set border linecolor rgb "#555555"
set multiplot layout 1,2
set logscale xy
set xlabel "reply"
set xtics ("1 KiB" 1024, "16 KiB" 16384, "256 KiB" 262144, "4 MiB" 4194304, "64 MiB" 67108864)
set key left top
set title "Time of get(Json), plain HTTP"
set ytics ("100 us" 1e-4, "1 ms" 1e-3, "10 ms" 1e-2, "100 ms" 0.1, "1 s" 1, "10 s" 10)
plot "reply-time.dat" using 1:3 with lines linewidth 2 linecolor rgb "#d95f02" title "bare", \
     "reply-time.dat" using 1:2 with points pointtype 7 linecolor rgb "#1b6ca8" title "ours"
set title "Peak memory of get(Json)"
set ytics ("64 KiB" 65536, "1 MiB" 1048576, "16 MiB" 16777216, "256 MiB" 268435456)
plot "reply-memory.dat" using 1:3 with lines linewidth 2 linecolor rgb "#d95f02" title "bare", \
     "reply-memory.dat" using 1:2 with points pointtype 7 linecolor rgb "#1b6ca8" title "ours"
unset multiplot

# ---- Where a sign-in's time goes -----------------------------------------------------------------
reset
set terminal svg size 860,420 font "sans-serif,12" background rgb "white"
set output "sign-in.svg"
set multiplot
set style data histograms
set style histogram rowstacked
set style fill solid 1 border rgb "white"
set boxwidth 0.7
set grid ytics linecolor rgb "#dddddd"
set border 3 linecolor rgb "#555555"
set xtics nomirror rotate by -25
set ytics nomirror
set yrange [0:*]
set ylabel "ms"
set bmargin 6
phase = "#222222 #e6ab02 #1b6ca8 #74a9cf #999999 #66a61e #a6761d #7570b3 #1b9e77 #b3cde3 #d95f02"
set origin 0, 0
set size 0.39, 1
set title "All of it"
unset key
plot for [i = 2:12] "sign-in.dat" using i:xtic(1) linecolor rgb word(phase, i - 1) title columnheader(i)
set origin 0.39, 0
set size 0.61, 1
set title "Without CA bundle, TLS and server"
set key outside right top reverse Left invert samplen 1
plot for [i = 5:12] "sign-in.dat" using i:xtic(1) linecolor rgb word(phase, i - 1) title columnheader(i), \
    keyentry with boxes linecolor rgb word(phase, 3) title "server", \
    keyentry with boxes linecolor rgb word(phase, 2) title "TLS", \
    keyentry with boxes linecolor rgb word(phase, 1) title "CA bundle"
unset multiplot
