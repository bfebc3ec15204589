"""A client that falls silent in its upload is waited for, but not for ever."""

import os
import time

from panel_server import PanelTest, field, file
from verdict import main


class Silence(PanelTest):
    def test_ends_an_upload_after_half_a_minute(self):
        session = self.panel.sign_in()
        begun = field("token", self.panel.token(session)) + file("f", b"x" * 1000)
        reader, writer = os.pipe()
        os.write(writer, begun)
        started = time.monotonic()
        with self.panel.start_front(
            session, body=begun, options={"stdin": reader}, CONTENT_LENGTH="100000"
        ) as front:
            answer, errors = front.communicate(timeout=90)
        self.assertGreater(time.monotonic() - started, 29)
        os.close(writer)
        os.close(reader)
        self.assertIn(b"Status: 408 ", answer, errors)
        self.assert_nothing_left()


if __name__ == "__main__":
    main()
