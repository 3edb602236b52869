"""The mutants of the driver: tests/mutants.py N SEED; see ./test mutants."""
import pathlib
import runpy
import sys

FOLDER = pathlib.Path(__file__).resolve().parent.parent / "measure"
sys.path.insert(0, str(FOLDER))
runpy.run_path(str(FOLDER / "mutants.py"), run_name="__main__")
