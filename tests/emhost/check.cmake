# emhost check: the shipped samples pass; each broken file's planted faults are all found.
set(D tests/emhost/data)
emhost_golden(check-samples ARGS check examples/msgfiles/EVENTMSG.XML
                                       examples/msgfiles/ERRMSG.XML examples/scenarios/demo.json)
emhost_golden(check-stdin STDIN examples/msgfiles/ERRMSG.XML ARGS check -)
emhost_golden(check-broken-errmsg EXIT 1 ARGS check ${D}/broken-errmsg.xml)
emhost_golden(check-broken-eventmsg EXIT 1 ARGS check ${D}/broken-eventmsg.xml)
emhost_golden(check-not-well-formed EXIT 1 ARGS check ${D}/not-well-formed.xml)
# The format of a file of another name is how most of its codes are written, not its first.
emhost_golden(check-first-code-misspelt EXIT 1 ARGS check ${D}/first-code-misspelt.xml)
emhost_golden(check-bad-scenario EXIT 1 ARGS check ${D}/bad-scenario.json)
# A file that cannot be read, or a directory, is a bad input (exit 2); the others are still
# checked.
emhost_golden(check-unreadable EXIT 2 ARGS check ${D}/nosuch.xml examples/msgfiles/EVENTMSG.XML
                                            ${D})
# Every error of a scenario in one pass, and the warnings: a module id twice, an event from
# a module that is not there, more cabinets than the module keeps and its queue holds.
emhost_golden(check-lint-scenario EXIT 1 ARGS check ${D}/lint-scenario.json)
