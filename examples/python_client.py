#!/usr/bin/python3
"""Reports that a film plays, and says what became of it.

    python_client.py ROOT    with the daemon of that root; without one that of this machine
"""

import sys

import corvid


def main(root: str | None) -> int:
    player = corvid.Description(
        client_type=5,
        client_version=3,
        session_id=42,
        require_user_info=True,
        client_name="Player",
        service_name="Evening Film",
    )
    try:
        with corvid.Session(root=root, deadline=10) as session:
            session.describe(player)
            for backend in session.start().result().backends:
                print(f"{backend.name} is {backend.state}: {backend.reason.text}")

            played = session.send(7, 2, {"action": "play", "position": 12.5})
            paused = session.send(7, 3, {"action": "pause", "position": 61.25})
            for answer in (played.result(), paused.result()):
                print("taken" if answer.taken else f"dropped: {answer.reason}")

            failure = session.flush().result().failure
            if failure is not None:
                print(f"not posted: {failure.description}")
            return 0
    except corvid.CorvidError as error:
        print(f"not reported: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else None))
