# emhost with no subcommand, run and map on the example scenarios, their help texts and
# the exit codes of a module that cannot be loaded and of bad input.
emhost_golden(demo ARGS)
emhost_golden(help ARGS --help)
emhost_golden(run_help ARGS run --help)
emhost_golden(map_help ARGS map --help)
emhost_golden(run_demo_json ARGS run examples/scenarios/demo.json)
emhost_golden(run_faults ARGS run examples/scenarios/faults.json --format table)
emhost_golden(run_requests_stdin STDIN examples/requests/fans.txt
              ARGS run examples/scenarios/faults.json --requests - --format table)
emhost_golden(run_scenario_stdin STDIN examples/scenarios/faults.json ARGS run - --format json)
emhost_golden(map_demo ARGS map)
emhost_golden(map_faults ARGS map examples/scenarios/faults.json)
emhost_golden(no_module EXIT 1 ARGS run --module /nonexistent/em_oidmap.so)
emhost_golden(no_scenario EXIT 2 ARGS run examples/scenarios/missing.json)
emhost_golden(bad_format EXIT 2 ARGS run --format xml)
emhost_golden(bad_request EXIT 2 STDIN tests/emhost/golden/bad-request.txt ARGS run --requests -)
emhost_golden(bad_scenario EXIT 2 ARGS map tests/emhost/golden/bad-scenario.json)
