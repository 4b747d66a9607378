#!/usr/bin/python3
"""Says what it was asked, and with what it was launched, until somebody says "end"."""

import convey

with convey.Application("lumen-2.5-en_us") as app:
    @app.on()
    def answer(message):
        if message.body == "end":
            app.quit()
        return f"{message.body}; {convey.launch_options()}"

    app.run()
