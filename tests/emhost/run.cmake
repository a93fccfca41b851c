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
# The readable view's hints: nothing is mapped with one module, and no module answers the
# language request, so the log page is refused.
emhost_golden(run_one_module ARGS run examples/scenarios/one-module.json --format table)
emhost_golden(map_one_module ARGS map examples/scenarios/one-module.json)
# An event that changes what its module answers, placed on the virtual clock.
emhost_golden(run_changes ARGS run examples/scenarios/changes.json --format table)
# A log read answered 0x0F: named in the summary, and the run is not clean.
emhost_golden(run_scan_timeout EXIT 1 ARGS run tests/emhost/data/scan-timeout.json --format table)
# A late answer is awaited as long as the module works for it, or --late-wait.
emhost_golden(run_late_answer ARGS run tests/emhost/data/late-answers.json --format table)
emhost_golden(run_late_wait EXIT 1
              ARGS run tests/emhost/data/late-answers.json --format table --late-wait 200)
# A saved run: the same output passes, another shows the differences.
emhost_golden(run_expect_same ARGS run examples/scenarios/faults.json --format table
                                   --expect tests/emhost/golden/run_faults.out)
emhost_golden(run_expect_differs EXIT 1 ARGS run examples/scenarios/faults.json --format table
                                             --expect tests/emhost/data/faults-saved.out)
# Trace lines on standard error end before emhost's own lines begin.
emhost_golden(run_trace_lines ARGS run examples/scenarios/faults.json --format json --trace 1)
emhost_golden(opcodes ARGS opcodes)
emhost_golden(map_demo ARGS map)
emhost_golden(map_faults ARGS map examples/scenarios/faults.json)
emhost_golden(no_module EXIT 1 ARGS run --module /nonexistent/em_oidmap.so)
emhost_golden(no_scenario EXIT 2 ARGS run examples/scenarios/missing.json)
emhost_golden(bad_format EXIT 2 ARGS run --format xml)
emhost_golden(bad_request EXIT 2 STDIN tests/emhost/golden/bad-request.txt ARGS run --requests -)
emhost_golden(bad_opcode_name EXIT 2 STDIN tests/emhost/data/bad-opcode.txt ARGS run --requests -)
emhost_golden(requests_dir EXIT 2 ARGS run --requests examples/requests)
emhost_golden(stdin_twice EXIT 2 ARGS run - --requests -)
emhost_golden(bad_scenario EXIT 2 ARGS map tests/emhost/golden/bad-scenario.json)
