# The picture of scripts/soak, from the table that its trial writes: gnuplot -c soak.gnuplot TABLE PICTURE PROCESSES
table = ARG1
processes = ARG3
set terminal svg size 900,1000 dynamic font "sans,12" background "white"
set output ARG2
set datafile separator tab
set multiplot layout 4,1
set lmargin 10
set rmargin 16
set key outside right
set grid
set yrange [0:*]
set ylabel "memory, MiB"
plot for [name in processes] table using 1:(column(name." KiB")/1024) with lines title name
set ylabel "descriptors"
plot for [name in processes] table using 1:(column(name." descriptors")) with lines title name
set ylabel "a second"
plot for [name in "deliveries answers lost"] table using 1:(column(name)) with lines title name
set ylabel "round trip, ms"
set xlabel "minutes"
plot table using 1:(column("round trip")) with lines title "mean"
