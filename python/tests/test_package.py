# The package itself: what help() shows, type stubs that list the whole compiled API, and the
# optional service client that may be missing but must not hide its own errors.
import ast
import inspect
import pydoc
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

import kestrel
from kestrel import _kestrel

PACKAGE = Path(kestrel.__file__).resolve().parent


def public_names(namespace):
    return {name for name in dir(namespace) if not name.startswith("_")}


def stub_members():
    # {qualified class name: member names} of the stub; "" holds its top-level names.
    members = {}

    def collect(body, owner):
        names = members.setdefault(owner, set())
        for node in body:
            if isinstance(node, ast.ClassDef):
                names.add(node.name)
                collect(node.body, f"{owner}.{node.name}".lstrip("."))
            elif isinstance(node, ast.FunctionDef):
                names.add(node.name)
            elif isinstance(node, (ast.AnnAssign, ast.Assign)):
                names.update(t.id for t in getattr(node, "targets", [getattr(node, "target", None)])
                             if isinstance(t, ast.Name))
    collect(ast.parse((PACKAGE / "_kestrel.pyi").read_text()).body, "")
    return members


def test_the_stub_lists_every_public_name_of_the_extension():
    stubs = stub_members()
    assert public_names(_kestrel) <= stubs[""]
    for name, member in inspect.getmembers(_kestrel, inspect.isclass):
        classes = [(name, member)] + [(f"{name}.{n}", c) for n, c in
                                      inspect.getmembers(member, inspect.isclass)
                                      if c.__module__ == _kestrel.__name__ and n[0] != "_"]
        for qualified, cls in classes:
            missing = public_names(cls) - stubs.get(qualified, set())
            missing -= {"name", "value"} if issubclass(cls, int) or hasattr(cls, "__members__") \
                else set()
            assert not missing, f"{qualified}: {sorted(missing)}"


def test_help_shows_keyword_names_and_documentation():
    text = pydoc.render_doc(kestrel.ArmController, renderer=pydoc.plaintext)
    assert "move_joint_waypoints(self: kestrel._kestrel.ArmController, waypoints:" in text
    assert "blend_radius_m: float = 0.002" in text
    assert "Ends whatever the arm is doing at once" in text
    assert kestrel.MIT_MODE != kestrel.POS_VEL_MODE


@pytest.mark.parametrize("client_source, outcome", [
    (None, "imported"),
    ("class ServiceClient:\n    pass\n", "ServiceClient"),
    ("import kestrel_no_such_module\n", "No module named 'kestrel_no_such_module'"),
])
def test_service_client_is_optional_but_its_errors_surface(tmp_path, client_source, outcome):
    copy = tmp_path / "kestrel"
    shutil.copytree(PACKAGE, copy, ignore=shutil.ignore_patterns("service_client.py"))
    if client_source is not None:
        (copy / "service_client.py").write_text(client_source)
    probe = ("import kestrel; print(getattr(kestrel, 'ServiceClient', None) and "
             "kestrel.ServiceClient.__name__ or 'imported')")
    run = subprocess.run([sys.executable, "-c", probe], cwd=tmp_path, capture_output=True,
                         text=True, env={"PYTHONPATH": str(tmp_path)})
    assert outcome in run.stdout + run.stderr
    assert (run.returncode == 0) == (outcome != "No module named 'kestrel_no_such_module'")
