import pytest

from support.harness import LOG_DEVICE_TAKEN, SEND_ALL, FakeServer, LogDevice, RawViewer, Server, Viewer


def entered(kind):
    """A fixture that is what entering kind() gives."""
    @pytest.fixture
    def fixture():
        with kind() as it:
            yield it
    return fixture


server = entered(Server)
fake_server = entered(FakeServer)
terminal_viewer = entered(Viewer)  # needs one of the servers


@pytest.fixture
def viewer(server):
    """A viewer of the bare protocol that has asked for everything."""
    with RawViewer() as it:
        it.send(SEND_ALL)
        yield it


@pytest.fixture
def log_device():
    if LOG_DEVICE_TAKEN:
        pytest.skip("/dev/log cannot be this test's own")
    with LogDevice() as it:
        yield it
