@echo off
rem SPDX-License-Identifier: MIT
rem Takes the driver out again. Not in a system that runs from its disks: that does not start without it.
setlocal
if /i "%1"=="/yes" goto remove
echo This system will no longer start from a server. To go on: remove.cmd /yes
exit /b 1
:remove
regedit /s "%~dp0remove.reg"
if errorlevel 1 goto failed
del "%SystemRoot%\system32\drivers\qrndisk.sys.old" 2>nul
del "%SystemRoot%\system32\drivers\qrndisk.sys"
echo qrndisk is gone at the next start.
exit /b 0
:failed
echo qrndisk could not be removed. It takes an administrator.
exit /b 1
