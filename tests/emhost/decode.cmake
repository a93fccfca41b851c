# emhost decode: records of tests/emhost/data/*.hex shown with the sample message files.
set(D tests/emhost/data)
emhost_golden(decode-old STDIN ${D}/old-records.hex ARGS decode)
emhost_golden(decode-old-fr STDIN ${D}/old-records.hex
              ARGS decode --format old --lang 0x40C --designation "FAN SYS 1" -)
emhost_golden(decode-unified-de STDIN ${D}/unified-records.hex
              ARGS decode --lang 0x407 --designation "FAN SYS 1")
# A language id missing from the LanguageTable reads as en; records as arguments.
emhost_golden(decode-unified-args
              ARGS decode --format unified --msgfile examples/msgfiles/EVENTMSG.XML --lang 0x411
                   "1f00 00 00 01000400 00000000 64000000 01000000 00000000 00 01 3132303000"
                   "1a00 00 00 01002200 00000000 67000000 04000000 00000000 00 00")
# A file of another name; its misspelt code 0x402 finds no text.
emhost_golden(decode-other-msgfile
              ARGS decode --msgfile ${D}/broken-errmsg.xml
                   "02 04 00 03 65000000 0100 0300 20030000 e8030000"
                   "04 15 00 02 66000000 0000 0000 3c000000")

# Bad input: nothing on standard output, exit 2.
emhost_golden(decode-bad-digit EXIT 2 ARGS decode "01 04 zz")
emhost_golden(decode-odd-digits EXIT 2 ARGS decode "01 040")
emhost_golden(decode-cut-record EXIT 2 ARGS decode --format old "01 04 00 02 64000000 0100 0300")
emhost_golden(decode-mixed-formats EXIT 2
              ARGS decode "01 04 00 02 64000000 0100 0300 b0040000"
                          "1a00 00 00 01002200 00000000 67000000 04000000 00000000 00 00")
emhost_golden(decode-missing-msgfile EXIT 2
              ARGS decode --msgfile ${D}/nosuch.xml "01 22 00 01 6a000000 0100 0300")
emhost_golden(decode-bad-lang EXIT 2 ARGS decode --lang german "01 22 00 01 6a000000 0100 0300")
