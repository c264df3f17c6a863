# plot.gp -- round-trip time percentiles against offered rate, the daemon
# beside the bare baseline, from the sweep files bench/run.sh writes
# (columns: rate, offered, p50, p90, p99, loss %; the paced generator).
# Called as
#   gnuplot -e "datadir='DIR'; outfile='FILE.png'" bench/plot.gp
set terminal pngcairo size 900,560 noenhanced
set output outfile
set title "S-BFD reflector: round trip against offered rate (512 sessions, veth)"
set xlabel "offered requests per second (the rate asked of the paced load generator: one send per request)"
set ylabel "round trip (us, log scale)"
set logscale y
set key top left
set grid
plot datadir.'/sweep_daemon.dat' using 1:3 with linespoints lw 2 title 'daemon p50', \
     datadir.'/sweep_daemon.dat' using 1:5 with linespoints lw 2 title 'daemon p99', \
     datadir.'/sweep_baseline.dat' using 1:3 with linespoints dt 2 title 'baseline p50', \
     datadir.'/sweep_baseline.dat' using 1:5 with linespoints dt 2 title 'baseline p99'
