"""The system benchmark of the host TV, one module per job: sandbox runs, /proc sampling, log
parsing, binary inspection and the report. bench/system_bench.sh is the command to run."""
